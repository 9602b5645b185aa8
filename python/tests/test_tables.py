"""Shared tables written by other processes (the demonstration's
publishers), read through read-only mounts and checked against vornctl,
an independent reader; and what a reader gets from missing, foreign or
damaged files."""

import errno
import hashlib
import json
import os
import shutil

import pytest

import mroute
from conftest import vornctl_json
from mroute import BitIndex, BitMapperKey, IntfId, IpGenRouteKey, TableRoot

def test_directory_lists_every_application_and_vrf_with_its_tables(demo):
    directory = TableRoot(demo.root).directory()
    expected = {}
    for app in vornctl_json(demo.root, "dir")["applications"]:
        expected[app["name"]] = {
            v["vrf"]: (v["vornUrl"]["url"], (v["bitMapperVornUrl"] or {}).get("url", "")) for v in app["vrfs"]}
    got = {app: {vrf: (a.vornUrl, a.bitMapperVornUrl) for vrf, a in vrfs.items()} for app, vrfs in directory.items()}
    assert got == expected
    # After the last round: pim holds default only, igmp default and blue
    # with a bit mapper table each; static has withdrawn itself.
    assert got == {"igmp": {"blue": ("mfib/blue/igmp", "bitmapper/blue/igmp"),
                            "default": ("mfib/default/igmp", "bitmapper/default/igmp")},
                   "pim": {"default": ("mfib/default/pim", "")}}
    assert directory["pim"]["default"].vrfName == "default"


def test_every_announced_mfib_table_reads_as_vornctl_reads_it(demo):
    root = TableRoot(demo.root)
    urls = [a.vornUrl for vrfs in root.directory().values() for a in vrfs.values()]
    assert urls
    for url in urls:
        with root.mfib(url) as table:
            assert table.writer_running and table.writer_pid > 0
            routes = list(table)
            dumped = vornctl_json(demo.root, "dump", url, "route")["records"]
            assert [json.loads(r.key.json()) for r in routes] == [d["key"] for d in dumped], url
            assert len(table) == len(routes) and table.keys() == [r.key for r in routes]
            for route, d in zip(routes, dumped):
                assert (d["priority"], d["version"], len(d["oifs"])) == (route.priority.value, route.version,
                                                                         len(route.oifs))
                assert str(route).startswith("%s priority %d version %d " % (route.key, d["priority"], d["version"]))
                assert route.version >= 1 and route.key in table and table[route.key] == route
                assert table.route(route.key) == route
            assert routes == sorted(routes, key=lambda r: r.key)


def test_routes_lookups_and_the_interface_index_table(demo):
    root = TableRoot(demo.root)
    pim = root.mfib("mfib/default/pim")
    # pim numbers Ethernet1-8 as 1-8; every outgoing index of its routes
    # resolves through that table.
    assert pim.oifIndexIntf() == {n: IntfId("Ethernet%d" % n) for n in range(1, 9)}
    assert pim.oifIndexIntf(3) == IntfId("Ethernet3") and pim.oifIndexIntf(9) is None
    for route in pim:
        assert route.oifs and all(pim.oifIndexIntf(i) is not None for i in route.oifs)
        assert route.lastOif == route.oifs[-1]
    absent = IpGenRouteKey("192.0.2.99", "239.9.9.9")
    assert pim.route(absent) is None and absent not in pim
    with pytest.raises(KeyError, match=r"\(192\.0\.2\.99, 239\.9\.9\.9\)"):
        pim[absent]
    pim.close()
    with pytest.raises(mroute.RangeError, match="closed"):
        len(pim)


def test_bit_mapper_tables_read_as_vornctl_reads_them(demo):
    root = TableRoot(demo.root)
    for vrf in ("default", "blue"):
        url = "bitmapper/%s/igmp" % vrf
        with root.bitmapper(url) as table:
            records = table.bitIndexMap()
            dumped = vornctl_json(demo.root, "dump", url, "bitIndexMap")["records"]
            assert [r.bitIndex.value for r in records] == [d["bitIndex"] for d in dumped]
            for r, d in zip(records, dumped):
                assert d["bitMapperKey"] == {"intfId": r.bitMapperKey.intfId.name, "addr": r.bitMapperKey.addr.str}
                assert d["refCount"] == r.refCount and json.loads(r.json()) == d
                assert table.bitIndexMap(r.bitIndex) == r
            assert table.bitIndexMap(BitIndex(60000)) is None
            assert table.waitlistMap() == [] and table.waitlistMap(BitMapperKey("Ethernet1", "192.0.2.1")) is None
            # igmp's routes name bit indices: each is in its bit mapper table.
            with root.mfib("mfib/%s/igmp" % vrf) as mfib:
                for route in mfib:
                    assert all(table.bitIndexMap(i) is not None for i in route.oifs)


def test_reading_writes_nothing(demo):
    root = TableRoot(demo.root)
    path = os.path.join(demo.root, "mfib%2Fdefault%2Fpim.vorn")
    with open(path, "rb") as f:
        before = hashlib.sha256(f.read()).hexdigest()
    with root.mfib("mfib/default/pim") as table:
        list(table)
        table.oifIndexIntf()
    root.directory()
    with open(path, "rb") as f:
        assert hashlib.sha256(f.read()).hexdigest() == before
    assert root.regions()["mfib/default/pim"] == "Vorn::Multicast::Fib::Status"
    assert root.regions()["bitmapper/blue/igmp"] == "BitMapper::VornStatus"


def test_missing_foreign_and_damaged_tables_are_refused_clearly(demo, shm_root):
    root = TableRoot(demo.root)
    with pytest.raises(OSError) as caught:
        root.mfib("mfib/green/pim")
    assert caught.value.errno == errno.ENOENT
    with pytest.raises(mroute.CorruptionError):
        root.bitmapper("mfib/default/pim")
    with pytest.raises(mroute.ParseError):
        root.mfib("../escape")
    # A copy cut short: its header no longer covers its tables.
    source = os.path.join(demo.root, "mfib%2Fdefault%2Fpim.vorn")
    cut = os.path.join(shm_root, "mfib%2Fdefault%2Fpim.vorn")
    shutil.copyfile(source, cut)
    os.truncate(cut, os.path.getsize(cut) // 2)
    with pytest.raises(mroute.CorruptionError) as caught:
        TableRoot(shm_root).mfib("mfib/default/pim")
    assert cut in str(caught.value)
    assert "mfib/default/pim" not in TableRoot(shm_root).regions()


def test_the_root_defaults_to_vorn_root(demo, monkeypatch):
    monkeypatch.setenv("VORN_ROOT", demo.root)
    assert TableRoot().path == demo.root
    assert "mfibdir/pim" in TableRoot().urls()


def test_an_agent_side_reader_in_this_process_mounts_what_the_directory_announces(demo):
    loop = mroute.EventLoop()
    reader = mroute.MfibDirReader(loop, demo.root)
    vorn_dir = reader.mfibVornDir
    assert loop.run_until(lambda: vorn_dir.count("vornColl") == 2, 5.0)
    assert sorted(vorn_dir.keys("vornColl")) == ["'blue'", "'default'"]
    default = vorn_dir.entity("vornColl", "default")
    assert default.type_name == "Vorn::Multicast::Fib::MfibVornColl"
    assert default.get("vrfName") == "'default'" and default.count("vornPtr") == 2
    assert [name for name, _ in reader.mfibDir.entries()] == ["igmp", "pim"]
    pim = reader.mfibDir.entity("pim")
    assert pim.entity("dirColl", "default").get("vornUrl") == "'mfib/default/pim'"
