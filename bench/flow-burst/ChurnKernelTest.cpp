// churn-bench against the agent, in a namespace of its own: a few thousand
// (S, G) routes installed, then every route's outgoing interface changed
// twice; after each step every kernel entry must have exactly the wanted
// interfaces (the watcher reads the kernel's table to check).
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>

namespace {

TEST(ChurnKernelTest, EveryKernelEntryFollowsEveryChangeOfItsRoute) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to create network namespaces";
  std::filesystem::path const out =
      std::filesystem::temp_directory_path() / ("churn-kernel-test-" + std::to_string(::getpid()));
  std::string const cmd = std::string(CHURN_BENCH_PATH) + " " + BUILD_DIR +
                          " --routes 3000 --rounds 2 --only agent --timeout 60 --out " + out.string() + " >" +
                          out.string() + ".log 2>&1";
  int const rc = std::system(cmd.c_str());
  std::map<std::string, std::string> v;
  std::ifstream f(out / "mroute-agent.txt");
  for (std::string k, val; f >> k >> val;) v[k] = val;
  std::ifstream log(out.string() + ".log");
  std::string const text((std::istreambuf_iterator<char>(log)), std::istreambuf_iterator<char>());
  EXPECT_EQ(rc, 0) << text;
  EXPECT_EQ(v["install_as_wanted_at_end"], "3000") << text;
  EXPECT_EQ(v["churn1_as_wanted_at_end"], "3000") << text;
  EXPECT_EQ(v["churn2_as_wanted_at_end"], "3000") << text;
  std::filesystem::remove_all(out);
  std::filesystem::remove(out.string() + ".log");
}

}  // namespace
