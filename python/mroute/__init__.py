"""libmroute from Python.

Value types (IntfId, IpGenAddr, IpGenPrefix, VrfName, AddressFamily,
IpGenRouteKey, RoutePriority, OifIndex, Route, BitIndex, BitMapperKey,
PortVlan) print in their plain forms (str: 10.1.0.2/32, Ethernet1,
(10.1.0.2, 239.1.1.1); json() the same as typed JSON), keep the value text
form for repr() and from_text(), and compare and hash by value.

Shared tables are read-only: TableRoot(path) mounts MFIB tables
(root.mfib(url)), bit mapper tables (root.bitmapper(url)) and reads the MFIB
directory (root.directory()) written by other processes.

Any entity answers through the generic attribute interface (Entity:
attributes(), get, set, collections, invoke); configFactory, statusFactory,
bitMapperSmFactory, mfibVornDirFactory and MfibDirReader (the MFIB directory
followed on an EventLoop the script turns) make entities in this process;
AttrServer serves one to kivctl. mroute.agent talks to a running agent's
introspection socket as kivctl does.

Names of the system (types, attributes, table names, factories) are spelled
as in the library; the bindings' own methods are snake_case.
"""

from ._mroute import *  # noqa: F401,F403
from ._mroute import (  # noqa: F401
    AddressFamily,
    CorruptionError,
    Entity,
    Error,
    NameInUseError,
    ParseError,
    RangeError,
)
from . import agent  # noqa: F401
