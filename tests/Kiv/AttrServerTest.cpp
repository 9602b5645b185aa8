#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <string>

#include "Kiv/AttrServer.h"
#include "Kiv/Dir.h"
#include "Kiv/Reflect.h"

namespace {

// A directory of hosts, each with a collection of strings keyed by string.
class Host : public Kiv::Entity {
 public:
  class NotifieeConst : public Kiv::NotifieeConstBase<Host> {
   public:
    virtual void onMtu() {}
  };
  explicit Host(Kiv::Name n) : Kiv::Entity(std::move(n)) {}

  KIV_REFLECT_BEGIN(Host, "KivTest::Host")
  KIV_ATTR(std::uint32_t, mtu, onMtu, 1500)
  std::string route(std::string const& k) const {
    auto it = route_.find(k);
    return it == route_.end() ? std::string() : it->second;
  }
  void routeIs(std::string const& k, std::string const& v) { route_[k] = v; }
  void routeDel(std::string const& k) { route_.erase(k); }
  KIV_REFLECT_COLLECTION(route, std::string, route_.size(), route_)
  Kiv::Ptr<Host> peer() const { return peer_; }
  void peerIs(Kiv::Ptr<Host> const& p) { peer_ = p; }
  KIV_REFLECT_SCALAR(peer)
  std::uint16_t drops() const { return drops_; }
  void dropsIs(std::uint16_t d) { drops_ = d; }
  KIV_REFLECT_COUNTER(drops)
  KIV_REFLECT_END

 private:
  std::uint16_t drops_ = 0;
  std::map<std::string, std::string> route_;
  Kiv::Ptr<Host> peer_;
};

class AttrServerAnswer : public ::testing::Test {
 protected:
  void SetUp() override {
    root->entryIs("a/b", a);
    root->entryIs("b", b);
    a->peerIs(b);
    b->routeIs("10.0.0.0/8", "eth1");
  }
  std::string ask(std::string const& req) { return Kiv::AttrServer::answer(*root, req); }

  Kiv::Ptr<Kiv::Dir> root = Kiv::Dir::DirIs("root");
  Kiv::Ptr<Host> a = new Host("a");
  Kiv::Ptr<Host> b = new Host("b");
};

TEST_F(AttrServerAnswer, PathsWalkDirEntriesPointersAndQuotedSegments) {
  EXPECT_EQ(ask("ls\ttext\t/\t"), "ok\na/b\tentry\tKivTest::Host\tro\nb\tentry\tKivTest::Host\tro\n");
  EXPECT_EQ(ask("get\ttext\t/'a/b'/mtu\t"), "ok\n1500\n");
  EXPECT_EQ(ask("get\ttext\t/'a/b'/peer/route/'10.0.0.0/8'\t"), "ok\n'eth1'\n");
  EXPECT_EQ(ask("get\tjson\t/b/route\t"), "ok\n{\"10.0.0.0/8\": \"eth1\"}\n");
  EXPECT_EQ(ask("set\ttext\t/b/route/'192.168.0.0/16'\t'eth2'"), "ok\n");
  EXPECT_EQ(b->route("192.168.0.0/16"), "eth2");
  EXPECT_EQ(ask("del\ttext\t/b/route/'192.168.0.0/16'\t"), "ok\n");
  EXPECT_EQ(ask("set\ttext\t/b/mtu\t9000"), "ok\n");
  EXPECT_EQ(b->mtu(), 9000u);
  // A pointer is written by naming it; only a read walks into it.
  EXPECT_EQ(ask("set\ttext\t/'a/b'/peer\tNone"), "ok\n");
  EXPECT_FALSE(a->peer());
}

TEST_F(AttrServerAnswer, DerivedOperationsByPathAndTypedJson) {
  EXPECT_EQ(ask("invoke\ttext\t/b/dropsInc\t2"), "ok\n2\n");
  EXPECT_EQ(ask("invoke\tjson\t/b/dropsDec\t"), "ok\n1\n");
  EXPECT_EQ(ask("get\tjson\t/b\t"),
            "ok\n{\"type\": \"KivTest::Host\", \"name\": \"b\", \"attributes\": {\"mtu\": 1500, \"route\": "
            "{\"10.0.0.0/8\": \"eth1\"}, \"peer\": null, \"drops\": 1}}\n");
  EXPECT_EQ(ask("get\tjson\t/'a/b'/peer\t"), ask("get\tjson\t/b\t"));
  EXPECT_EQ(ask("get\tjson\t/\t"),
            "ok\n{\"type\": \"Kiv::Dir\", \"name\": \"root\", \"attributes\": {\"a/b\": \"a\", \"b\": \"b\"}}\n");
  EXPECT_EQ(ask("get\trawjson\t/\t"),
            "ok\n{\"type\": \"Kiv::Dir\", \"name\": \"root\", \"attributes\": {\"a/b\": {\"_entity\": "
            "\"KivTest::Host\", \"_name\": \"a\"}, \"b\": {\"_entity\": \"KivTest::Host\", \"_name\": \"b\"}}}\n");
  EXPECT_EQ(ask("get\ttext\t/b/dropsInc\t"), "error\n/b/dropsInc is an operation: invoke it\n");
  EXPECT_EQ(ask("invoke\ttext\t/b/mtuInc\t"), "error\nKivTest::Host has no attribute mtuInc\n");
  EXPECT_EQ(ask("invoke\ttext\t/b/routeDelAll\t"), "ok\n");
  EXPECT_EQ(b->route("10.0.0.0/8"), "");
  EXPECT_EQ(ask("invoke\ttext\t/b/routeDelAll/x\t"), "error\n/b/routeDelAll/x: routeDelAll is an operation\n");
  // A Dir's entries: made without an entity, listed, removed by path.
  EXPECT_EQ(ask("set\ttext\t/c\tNone"), "ok\n");
  EXPECT_EQ(ask("ls\ttext\t/\t"),
            "ok\na/b\tentry\tKivTest::Host\tro\nb\tentry\tKivTest::Host\tro\nc\tentry\tNone\tro\n");
  EXPECT_EQ(ask("get\ttext\t/c\t"), "error\n/c is None\n");
  EXPECT_EQ(ask("del\ttext\t/c\t"), "ok\n");
  EXPECT_FALSE(root->has("c"));
}

TEST_F(AttrServerAnswer, BadRequestsAreAnsweredWithAnErrorNeverAThrow) {
  EXPECT_EQ(ask("get\ttext\t/b/mtu/x\t"), "error\n/b/mtu/x: mtu is not a collection\n");
  EXPECT_EQ(ask("get\ttext\t/b/peer\t"), "error\n/b/peer is None\n");
  EXPECT_EQ(ask("get\ttext\t/c\t"), "error\n/c: no such entry\n");
  EXPECT_EQ(ask("get\ttext\t/b/nosuch\t"), "error\nKivTest::Host has no attribute nosuch\n");
  EXPECT_EQ(ask("get\ttext\t/'b\t"), "error\nunbalanced quote or bracket in path /'b\n");
  // A Dir entry is a key of its path collection: set writes the entry, and
  // only None (an entry without an entity) has a text form.
  EXPECT_EQ(ask("set\ttext\t/b\t1"),
            "error\nKiv::Dir::entry: an entity is not read from text; expected None, found 1\n");
  EXPECT_EQ(ask("set\ttext\t/b/peer\t1"),
            "error\nKivTest::Host::peer: an entity is not read from text; expected None, found 1\n");
  EXPECT_EQ(ask("set\ttext\t/b/mtu\t-1").rfind("error\nKivTest::Host::mtu: ", 0), 0u);
  EXPECT_EQ(ask("frob\ttext\t/\t"), "error\nunknown verb frob (ls, get, set, del, invoke)\n");
  EXPECT_EQ(ask("get\txml\t/\t"), "error\nunknown format xml (plain, json, text, rawjson)\n");
  EXPECT_EQ(ask("get /"), "error\nmalformed request: expected verb, format, path and argument\n");
  EXPECT_EQ(b->mtu(), 1500u);
}

TEST_F(AttrServerAnswer, PlainAnswersShowEntriesBoundedAndFormatsAreChecked) {
  b->routeIs("192.0.2.0/24", "eth2");
  EXPECT_EQ(ask("get\tplain\t/'a/b'\t"), "ok\nmtu\t1500\nroute\t0 entries\npeer\tb\ndrops\t0\n");
  EXPECT_EQ(ask("get\tplain\t/b\t"),
            "ok\nmtu\t1500\nroute\t2 entries\n  10.0.0.0/8\teth1\n  192.0.2.0/24\teth2\npeer\tnone\ndrops\t0\n");
  EXPECT_EQ(ask("get\tplain,limit=1\t/b/route\t"), "ok\n10.0.0.0/8\teth1\n... 1 more entry\n");
  EXPECT_EQ(ask("ls\tjson,limit=1\t/b/route\t"), "ok\n{\"10.0.0.0/8\": \"eth1\", \"...\": 1}\n");
  EXPECT_EQ(ask("get\tplain,limit=0\t/b/route\t"), "ok\n10.0.0.0/8\teth1\n192.0.2.0/24\teth2\n");
  EXPECT_EQ(ask("get\ttext\t/b\t"), "ok\nmtu\t1500\nroute\t2 entries\npeer\tNone\ndrops\t0\n");
  EXPECT_EQ(ask("get\tyaml\t/\t"), "error\nunknown format yaml (plain, json, text, rawjson)\n");
  EXPECT_EQ(ask("get\tplain,depth=1\t/\t"), "error\nunknown format option depth=1\n");
  EXPECT_EQ(ask("get\tplain,limit=x\t/\t").rfind("error\n", 0), 0u);
}

}  // namespace
