"""Value types: natural constructors, the text form both ways, equality and
hashing by value, and clear errors for bad input."""

import json

import pytest

import mroute
from mroute import (AddressFamily, BitIndex, BitMapperKey, IntfId, IpGenAddr, IpGenPrefix, IpGenRouteKey, PortVlan,
                    RoutePriority, VrfName)

ROUND_TRIPS = [
    IntfId("Ethernet3/1"),
    IntfId(),
    IpGenAddr("10.0.0.1"),
    IpGenAddr("ff02::1:3"),
    IpGenAddr(),
    IpGenPrefix("10.1.2.3/8"),
    IpGenPrefix("2001:db8::/32"),
    VrfName("red"),
    VrfName("it's"),
    IpGenRouteKey("10.0.0.1", "239.1.1.1"),
    IpGenRouteKey(IpGenPrefix("2001:db8::/64"), IpGenPrefix("ff0e::/16")),
    BitIndex(7),
    BitIndex.null(),
    BitMapperKey("Ethernet1", "239.0.0.1"),
    PortVlan("Ethernet2", 10),
    PortVlan.out_lif("Ethernet2", 70000),
]


@pytest.mark.parametrize("value", ROUND_TRIPS, ids=lambda v: type(v).__name__)
def test_text_form_reads_back_to_an_equal_value_with_the_same_hash(value):
    text = repr(value)
    back = type(value).from_text(text)
    assert back == value
    assert hash(back) == hash(value)
    assert repr(back) == text and str(back) == str(value)
    # The plain form is valid JSON too, and never the text form.
    json.loads(value.json())
    assert not str(value).startswith("Value(")


def any_source(group):
    return IpGenRouteKey(IpGenPrefix("0.0.0.0/0"), IpGenPrefix(group))


@pytest.mark.parametrize("value, text, typed", [
    (IntfId("Ethernet3/1"), "Ethernet3/1", "Ethernet3/1"),
    (IntfId(), "none", None),
    (IpGenAddr("10.0.0.1"), "10.0.0.1", "10.0.0.1"),
    (IpGenAddr("ff02::1:3"), "ff02::1:3", "ff02::1:3"),
    (IpGenAddr(), "none", None),
    (IpGenPrefix("10.1.0.2/32"), "10.1.0.2/32", "10.1.0.2/32"),
    (IpGenPrefix("2001:db8::/32"), "2001:db8::/32", "2001:db8::/32"),
    (VrfName("it's"), "it's", "it's"),
    (IpGenRouteKey("10.1.0.2", "239.1.1.1"), "(10.1.0.2, 239.1.1.1)", {"source": "10.1.0.2", "group": "239.1.1.1"}),
    (any_source("239.1.1.2/32"), "(*, 239.1.1.2)", {"source": "*", "group": "239.1.1.2"}),
    (IpGenRouteKey(IpGenPrefix("2001:db8::/64"), IpGenPrefix("ff0e::/16")), "(2001:db8::/64, ff0e::/16)",
     {"source": "2001:db8::/64", "group": "ff0e::/16"}),
    (IpGenRouteKey("2001:db8:1::2", "ff3e::1:1"), "(2001:db8:1::2, ff3e::1:1)",
     {"source": "2001:db8:1::2", "group": "ff3e::1:1"}),
    (BitIndex(7), "7", 7),
    (BitMapperKey("Ethernet1", "239.0.0.1"), "(Ethernet1, 239.0.0.1)", {"intfId": "Ethernet1", "addr": "239.0.0.1"}),
    (PortVlan("Ethernet2", 10), "Ethernet2 vlan 10", {"intfId": "Ethernet2", "vlanId": 10}),
    (PortVlan.out_lif("Ethernet2", 70000), "Ethernet2 outLif 70000", {"intfId": "Ethernet2", "outLif": 70000}),
], ids=lambda v: v if isinstance(v, str) else "")
def test_plain_forms_are_what_an_operator_reads(value, text, typed):
    assert str(value) == text
    assert json.loads(value.json()) == typed


def test_a_route_reads_as_one_line_and_as_typed_fields():
    route = mroute.Route(IpGenRouteKey("10.0.0.1", "239.1.1.1"))
    assert str(route) == "(10.0.0.1, 239.1.1.1) priority 0 version 0 oif {}"
    assert json.loads(route.json()) == {"key": {"source": "10.0.0.1", "group": "239.1.1.1"}, "intf1": None,
                                        "intf2": None, "intf3": None, "intf4": None, "flags": 0, "priority": 0,
                                        "version": 0, "rpaIndex": 0, "oifs": []}
    assert repr(route).startswith("Value('Vorn::Multicast::Fib::Route', ** {'key': Value(")


def test_text_forms_are_the_systems():
    assert repr(IntfId("Ethernet1")) == "Value('Wirly::IntfId', ** {'intfId': 'Ethernet1'})"
    assert repr(IpGenPrefix("10.1.2.3/8")) == "Value('Wirly::IpGenPrefix', ** {'prefix': '10.0.0.0/8'})"
    assert repr(VrfName("default")) == "'default'"
    assert repr(BitIndex(12)) == "12"
    assert AddressFamily.ipv6.text == "'ipv6'"
    assert AddressFamily.from_text("'ipv4'") == AddressFamily.ipv4
    assert int(AddressFamily.ipv6) == 2
    key = IpGenRouteKey("10.0.0.1", "239.1.1.1")
    assert repr(key) == ("Value('Routing::Multicast::Fib::IpGenRouteKey', ** {"
                        "'source': Value('Wirly::IpGenPrefix', ** {'prefix': '10.0.0.1/32'}), "
                        "'group': Value('Wirly::IpGenPrefix', ** {'prefix': '239.1.1.1/32'})})")


def test_fields_read_as_python_values():
    key = IpGenRouteKey("10.0.0.1", "239.1.1.1")
    assert key.source == IpGenPrefix("10.0.0.1/32")
    assert key.group.address == IpGenAddr("239.1.1.1")
    assert key.group.len == 32 and key.group.af == AddressFamily.ipv4
    assert IpGenAddr("ff02::1").af == AddressFamily.ipv6 and IpGenAddr("ff02::1").is_multicast
    assert IntfId("Ethernet1").name == "Ethernet1" and not IntfId()
    assert VrfName("blue").name == "blue"
    k = BitMapperKey("Ethernet1", "192.0.2.1")
    assert k.intfId == IntfId("Ethernet1") and k.addr == IpGenAddr("192.0.2.1")
    assert BitIndex.waitlist().value == 65534 and not BitIndex.waitlist().is_valid
    assert PortVlan("Ethernet1", 10).vlanId == 10 and PortVlan.out_lif("Ethernet1", 9).is_out_lif
    route = mroute.Route(key)
    assert route.key == key and route.oifs == [] and route.priority == RoutePriority(0)


def test_equal_values_are_one_key_in_sets_and_dicts():
    seen = {IpGenRouteKey("10.0.0.1", "239.1.1.1"): "a"}
    seen[IpGenRouteKey(IpGenPrefix("10.0.0.1/32"), IpGenPrefix("239.1.1.1/32"))] = "b"
    assert len(seen) == 1 and list(seen.values()) == ["b"]
    assert len({IntfId("Ethernet1"), IntfId("Ethernet1"), IntfId("Ethernet2")}) == 2
    # An address and a prefix are different types: never equal.
    assert IpGenAddr("10.0.0.1") != IpGenPrefix("10.0.0.1/32")
    assert IntfId("Ethernet1") != "Ethernet1"


def test_route_keys_order_by_source_then_group():
    keys = [IpGenRouteKey("10.0.0.2", "239.1.1.1"), IpGenRouteKey("10.0.0.1", "239.1.1.2"),
            IpGenRouteKey("10.0.0.1", "239.1.1.1")]
    assert [k.source.address.str + " " + k.group.address.str for k in sorted(keys)] == [
        "10.0.0.1 239.1.1.1", "10.0.0.1 239.1.1.2", "10.0.0.2 239.1.1.1"]
    assert RoutePriority(1) < RoutePriority(2)


@pytest.mark.parametrize("make, error, message", [
    (lambda: IpGenAddr("10.0.0.300"), mroute.ParseError, "10.0.0.300"),
    (lambda: IpGenPrefix("10.0.0.0/33"), mroute.RangeError, ""),
    (lambda: VrfName("v" * 101), mroute.RangeError, "VrfName::bytes > VrfName::maxLength not allowed"),
    (lambda: BitIndex(70000), mroute.RangeError, "70000"),
    (lambda: RoutePriority(256), mroute.RangeError, "256"),
    (lambda: PortVlan("Ethernet1", 4096), mroute.RangeError, ""),
    (lambda: IntfId.from_text("Value('Wirly::IntfId', ** {'intfId': 'E1', 'extra': 1})"), mroute.ParseError,
     "extra"),
    (lambda: IpGenRouteKey.from_text("Value('Wirly::IntfId', ** {'intfId': 'E1'})"), mroute.ParseError, ""),
    (lambda: BitMapperKey.from_text("Value('BitMapper::BitMapperKey'"), mroute.ParseError, ""),
])
def test_bad_input_is_refused_with_a_clear_error(make, error, message):
    with pytest.raises(error) as caught:
        make()
    assert isinstance(caught.value, ValueError) and isinstance(caught.value, mroute.Error)
    assert message in str(caught.value)
