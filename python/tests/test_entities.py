"""The generic attribute interface on entities made in this process: the
reflective order, get/set through the text form, refusals, collections
walked by name against the typed answers, and operations."""

import os

import pytest

import mroute
from mroute import BitIndex, BitMapperKey, TableRoot


def key(n):
    return BitMapperKey("Ethernet%d" % (n + 1), "224.0.0.%d" % n)


@pytest.fixture
def allocator(shm_root):
    """A bit mapper of four indices writing its own table."""
    path = os.path.join(shm_root, "bitmapper.vorn")
    config = mroute.configFactory(4, False)
    status = mroute.statusFactory()
    sm = mroute.bitMapperSmFactory(config, status, path)

    def alloc(k):
        config.set("allocRequestKey", k)
        config.set("allocRequestCount", int(config.get("allocRequestCount")) + 1)
        return BitIndex.from_text(status.get("bitIndex", k))

    def dealloc(k):
        config.set("deallocRequestKey", k)
        config.set("deallocRequestCount", int(config.get("deallocRequestCount")) + 1)

    yield config, status, sm, alloc, dealloc, path


def test_attributes_come_in_declaration_order_with_kind_type_and_access():
    config = mroute.configFactory(8, True)
    assert config.type_name == "BitMapper::Config"
    assert [(a.name, a.kind, a.value_type, a.writable) for a in config.attributes()] == [
        ("bitMapSize", "scalar", "U32", False),
        ("bitMapMinIndex", "scalar", "U32", True),
        ("enableRefCount", "scalar", "bool", False),
        ("allocRequestKey", "scalar", "BitMapper::BitMapperKey", True),
        ("allocRequestCount", "scalar", "U32", True),
        ("deallocRequestKey", "scalar", "BitMapper::BitMapperKey", True),
        ("deallocRequestCount", "scalar", "U32", True)]
    status = mroute.statusFactory()
    bit_index = status.attribute("bitIndex")
    assert (bit_index.kind, bit_index.key_type, bit_index.value_type) == (
        "collection", "BitMapper::BitMapperKey", "BitMapper::BitIndex")


def test_set_goes_through_the_typed_setter_and_reads_back():
    config = mroute.configFactory(8, False)
    config.set("bitMapMinIndex", 2)
    assert config.get("bitMapMinIndex") == "2"
    config.set("allocRequestKey", key(3))
    assert BitMapperKey.from_text(config.get("allocRequestKey")) == key(3)
    config.set("allocRequestKey", repr(key(4)))  # the text form itself
    assert BitMapperKey.from_text(config.get("allocRequestKey")) == key(4)
    assert config.get("enableRefCount") == "False"


@pytest.mark.parametrize("name, value, error, message", [
    ("bitMapSize", 9, mroute.RangeError, "BitMapper::Config::bitMapSize is read-only"),
    ("bitMapMinIndex", "ten", mroute.ParseError, "BitMapper::Config::bitMapMinIndex: "),
    ("bitMapMinIndex", 2 ** 32, mroute.ParseError, "BitMapper::Config::bitMapMinIndex: "),
    ("allocRequestKey", "Value('Wirly::IntfId', ** {'intfId': 'E1'})", mroute.ParseError, "allocRequestKey"),
    ("noSuchAttr", 1, mroute.RangeError, "BitMapper::Config has no attribute noSuchAttr"),
])
def test_bad_writes_are_refused_and_change_nothing(name, value, error, message):
    config = mroute.configFactory(8, False)
    before = {a.name: config.get(a.name) for a in config.attributes()}
    with pytest.raises(error) as caught:
        config.set(name, value)
    assert message in str(caught.value)
    assert {a.name: config.get(a.name) for a in config.attributes()} == before


def test_a_collection_walked_by_name_equals_the_typed_answers(allocator):
    config, status, sm, alloc, dealloc, path = allocator
    assert [alloc(key(n)).value for n in range(3)] == [0, 1, 2]
    coll = status.collection("bitIndex")
    assert len(coll) == status.count("bitIndex") == 3
    assert sorted(coll) == sorted(repr(key(n)) for n in range(3))
    assert key(1) in coll and status.contains("bitIndex", key(1)) and key(7) not in coll
    assert coll[key(2)] == "2" and coll.get(key(7)) == "65535"
    with pytest.raises(KeyError):
        coll[key(7)]
    assert dict(coll.items()) == {repr(key(n)): str(n) for n in range(3)}
    # The shared table another process would read says the same.
    with TableRoot().bitmapper(path) as table:
        assert {repr(r.bitMapperKey): repr(r.bitIndex) for r in table.bitIndexMap()} == dict(coll.items())


def test_a_full_space_parks_keys_on_the_waitlist_and_serves_them_as_indices_return(allocator):
    config, status, sm, alloc, dealloc, path = allocator
    for n in range(4):
        alloc(key(n))
    assert alloc(key(4)) == BitIndex.waitlist()
    with TableRoot().bitmapper(path) as table:
        assert [str(w.bitMapperKey) for w in table.waitlistMap()] == [str(key(4))]
        assert table.waitlistMap(key(4)).requestCount == 1
        dealloc(key(1))
        assert status.get("bitIndex", key(4)) == "1"
        assert table.waitlistMap() == [] and table.bitIndexMap(1).bitMapperKey == key(4)
        assert table.bitIndexMap(1).firstAlloc is False


def test_the_free_pool_and_operations_by_name(allocator):
    config, status, sm, alloc, dealloc, path = allocator
    assert [a.name for a in sm.attributes()][:3] == ["config", "status", "vornStatus"]
    assert sm.entity("config") == config and sm.entity("status") == status
    pool = sm.collection("bitIndexFreePool")
    assert len(pool) == 4
    first = pool.keys()[0]
    assert pool[first] == ("Value('BitMapper::BitMapperSm::KivBitIndexFreePool', ** {'index': %s, 'bitIndex': 0})"
                           % first)
    assert sm.invoke("doAllocBitIndex", key(9)) == "0"
    assert status.get("bitIndex", key(9)) == "0" and len(pool) == 3
    assert sm.invoke("reviewKeyWaitlist") == "True"
    with pytest.raises(mroute.RangeError, match="argument"):
        sm.invoke("doAllocBitIndex")
    with pytest.raises(mroute.ParseError):
        sm.invoke("doAllocBitIndex", "'Ethernet1'")
    with pytest.raises(mroute.RangeError, match="is read-only"):
        sm.set("config", None)


def test_collections_of_entities_are_walked_into():
    vorn_dir = mroute.mfibVornDirFactory()
    vorn_dir.entry_set("vornColl", "red")
    vorn_dir.entry_set("vornColl", mroute.VrfName("blue"), None)
    assert sorted(vorn_dir.keys("vornColl")) == ["'blue'", "'red'"]
    red = vorn_dir.entity("vornColl", "red")
    assert (red.type_name, red.name, red.get("vrfName")) == ("Vorn::Multicast::Fib::MfibVornColl", "red", "'red'")
    assert vorn_dir.entity("vornColl", "green") is None
    vorn_dir.entry_del("vornColl", "red")
    assert vorn_dir.keys("vornColl") == ["'blue'"]
    assert vorn_dir.get("vornColl", "red") == "None"
    # The answers kivctl would get from this entity as an agent's root.
    assert vorn_dir.query("get", "/vornColl/blue") == "vrfName\tblue\nvornPtr\t0 entries\n"
    assert vorn_dir.query("get", "/vornColl/blue", raw=True) == "vrfName\t'blue'\nvornPtr\t0 entries\n"
    assert vorn_dir.query("get", "/vornColl", json=True) == '{"blue": "blue"}\n'
    blue = vorn_dir.entity("vornColl", "blue")
    assert blue.plain("vrfName") == "blue" and blue.get("vrfName") == "'blue'"
    with pytest.raises(mroute.RangeError, match="no such key"):
        vorn_dir.query("get", "/vornColl/red/vrfName")
    with pytest.raises(mroute.RangeError, match="not a Kiv::Dir"):
        vorn_dir.entries()
