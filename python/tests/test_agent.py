"""mroute.agent against the demonstration's live agent: the same
answers kivctl gets, refusals as AgentError, no agent as OSError."""

import os
import subprocess
import sys

import pytest

import mroute
from mroute import agent as agentclient
from mroute.agent import AgentError, Row


@pytest.fixture
def agent(demo, monkeypatch):
    monkeypatch.setenv("KIV_INTROSPECT_DIR", demo.root)
    return agentclient.connect(demo.AGENT)


def assert_default_collection(answer):
    # Answers are plain: a name is a string, an entity pointer its entity's name.
    assert answer["vrfName"] == "default"
    assert sorted(answer["vornPtr"].values()) == ["mfib/default/igmp", "mfib/default/pim"]


def test_lists_and_reads_what_the_agent_holds(agent, demo):
    assert agent.path == demo.socket
    assert agent.ls("/") == [Row("mfibDir", "entry", "Kiv::Dir", False),
                             Row("mfibDirSm", "entry", "Vorn::Multicast::Fib::MfibDirSm", False),
                             Row("mfibVornDir", "entry", "Vorn::Multicast::Fib::MfibVornDir", False)]
    assert_default_collection(agent.get("/mfibVornDir/vornColl/default"))
    # The value text form's JSON names types and entities.
    raw = agent.get("/mfibVornDir/vornColl/default", raw=True)
    assert raw["vrfName"] == "default"
    assert {t["_entity"] for t in raw["vornPtr"].values()} == {"Vorn::Multicast::Fib::Status"}
    assert agent.get("/mfibVornDir/vornColl", limit=1) in ({"blue": "blue", "...": 1},
                                                           {"default": "default", "...": 1})
    assert agent.entity_type("/mfibVornDir/vornColl/blue") == "Vorn::Multicast::Fib::MfibVornColl"
    rows = agent.ls("/mfibVornDir/vornColl/default")
    assert [r.name for r in rows] == ["vrfName", "vornPtr"] and not rows[0].writable
    # The agent's view of the directory is what the shared tables say.
    for app, vrfs in mroute.TableRoot(demo.root).directory().items():
        for vrf, announcement in vrfs.items():
            url = agent.get("/mfibDir/%s/dirColl/%s/vornUrl" % (app, vrf))
            assert url == announcement.vornUrl
    assert sorted(agent.ls("/mfibVornDir/vornColl")) == ["blue", "default"]


def test_operations_reach_the_agent(agent):
    # Mounting what is mounted already changes nothing.
    assert agent.invoke("/mfibDirSm/handleMountPoint", "'pim'", mroute.VrfName("default")) is None
    assert_default_collection(agent.get("/mfibVornDir/vornColl/default"))


SERVE = """
import sys, mroute
loop = mroute.EventLoop()
config = mroute.configFactory(8, False)
server = mroute.AttrServer(loop, config, sys.argv[1])
print("ready", flush=True)
while True:
    loop.run_once(-1)
"""


def test_a_script_serves_an_entity_that_another_process_writes(shm_root):
    path = os.path.join(shm_root, "script.sock")
    server = subprocess.Popen([sys.executable, "-c", SERVE, path], stdout=subprocess.PIPE, text=True)
    try:
        assert server.stdout.readline() == "ready\n"
        client = agentclient.connect(path=path)
        assert [r.name for r in client.ls("/")][:2] == ["bitMapSize", "bitMapMinIndex"]
        client.set("/bitMapMinIndex", "3")
        assert client.get("/bitMapMinIndex") == 3
        key = mroute.BitMapperKey("Ethernet1", "239.0.0.1")
        client.set("/allocRequestKey", repr(key))
        typed_key = {"intfId": "Ethernet1", "addr": "239.0.0.1"}
        assert client.get("/allocRequestKey") == typed_key
        assert client.get("/allocRequestKey", raw=True) == {
            "_type": "BitMapper::BitMapperKey", "intfId": {"_type": "Wirly::IntfId", "intfId": "Ethernet1"},
            "addr": {"_type": "Wirly::IpGenAddr", "addr": "239.0.0.1"}}
        with pytest.raises(AgentError, match="^BitMapper::Config::bitMapSize is read-only$"):
            client.set("/bitMapSize", "9")
        with pytest.raises(AgentError, match="bitMapMinIndex: expected an unsigned integer"):
            client.set("/bitMapMinIndex", "-1")
        no_key = {"intfId": None, "addr": None}
        assert client.get("/") == {"bitMapSize": 8, "bitMapMinIndex": 3, "enableRefCount": False,
                                   "allocRequestKey": typed_key, "allocRequestCount": 0,
                                   "deallocRequestKey": no_key, "deallocRequestCount": 0}
    finally:
        server.kill()
        server.wait()
        server.stdout.close()


def test_refusals_carry_the_agents_message(agent):
    with pytest.raises(AgentError) as caught:
        agent.set("/mfibVornDir/vornColl/default/vrfName", "'x'")
    assert str(caught.value) == "Vorn::Multicast::Fib::MfibVornColl::vrfName is read-only"
    with pytest.raises(AgentError, match="^/nosuch: no such entry$"):
        agent.get("/nosuch")
    with pytest.raises(AgentError, match="argument"):
        agent.invoke("/mfibDirSm/handleMountPoint", "'pim'")
    with pytest.raises(ValueError):
        agent.get("/a\nb")


def test_no_agent_is_an_os_error(demo):
    with pytest.raises(OSError):
        agentclient.connect(path=os.path.join(demo.root, "nobody.sock")).ls("/")
    with pytest.raises(ValueError):
        agentclient.connect()
