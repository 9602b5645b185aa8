#include "Kiv/PathTrust.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "OtherUser.h"

using KivTest::asUser;
using KivTest::kNobody;
using KivTest::Scratch;
namespace PathTrust = Kiv::PathTrust;

namespace {

PathTrust::Use const use{"table root", "VORN_ROOT"};

// The refusal's text, or "" when the directory was accepted.
std::string refusal(std::string const& path, bool make = false) {
  try {
    if (make) {
      PathTrust::dirMake(path, use);
    } else {
      PathTrust::dirCheck(path, use);
    }
    return "";
  } catch (Kiv::UntrustedPathException const& e) {
    return e.what();
  }
}

#define NEEDS_ROOT() \
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to give files to another user"

// "uid 0 (root)" when the tests run as root.
std::string const me = PathTrust::ownerText(::geteuid());

mode_t modeOf(std::string const& path) {
  struct stat st {};
  ::lstat(path.c_str(), &st);
  return st.st_mode & 07777;
}

}  // namespace

TEST(PathTrust, AMissingDirectoryIsMadeWithTheGivenModeAndThenTrusted) {
  Scratch s;
  std::string const deep = s / "a/b/c";
  Kiv::FileDesc fd = PathTrust::dirMake(deep, use, 0700);
  EXPECT_TRUE(fd.valid());
  EXPECT_EQ(modeOf(s / "a"), 0700u);
  EXPECT_EQ(modeOf(deep), 0700u);
  EXPECT_EQ(refusal(deep), "");
  // Dots and doubled slashes are walked like the kernel walks them.
  EXPECT_EQ(refusal(s.path() + "//a/./b/../b/c/"), "");
  EXPECT_EQ(refusal(s / "missing"),
            "cannot use table root " + (s / "missing") + ": " + (s / "missing") + ": No such file or directory");
}

TEST(PathTrust, ADirectoryOfAnotherUserIsRefusedInOneLineWithOwnerAndFix) {
  NEEDS_ROOT();
  Scratch s;
  // Made first by the other user, as an attacker would.
  ASSERT_EQ(asUser(kNobody, [&] { return std::to_string(::mkdir((s / "vorn").c_str(), 0755)); }), "0");
  EXPECT_EQ(refusal(s / "vorn", true), "table root " + (s / "vorn") +
                                           " is owned by uid 65534 (nobody), not by root: remove it or set "
                                           "VORN_ROOT to a directory you own");
}

TEST(PathTrust, WritableByOthersSymbolicLinksAndFilesAreRefused) {
  Scratch s;
  ASSERT_EQ(::mkdir((s / "shared").c_str(), 0700), 0);
  ASSERT_EQ(::chmod((s / "shared").c_str(), 0775), 0);
  EXPECT_EQ(refusal(s / "shared"), "table root " + (s / "shared") +
                                       " is writable by group or others (mode 0775, owned by " + me +
                                       "): run chmod go-w on it or set VORN_ROOT to a directory you own");
  ASSERT_EQ(::mkdir((s / "good").c_str(), 0755), 0);
  ASSERT_EQ(::symlink((s / "good").c_str(), (s / "link").c_str()), 0);
  EXPECT_NE(refusal(s / "link", true).find(" is a symbolic link (owned by " + me + "): remove it"), std::string::npos);
  int const f = ::open((s / "file").c_str(), O_CREAT | O_WRONLY, 0644);
  ::close(f);
  EXPECT_NE(refusal(s / "file", true).find(" is not a directory (owned by " + me + "): remove it"), std::string::npos);
}

TEST(PathTrust, DirectoriesAboveMustBeTrustedOrStickyAndLinksAboveAreFollowed) {
  NEEDS_ROOT();
  Scratch s;
  ASSERT_EQ(::mkdir((s / "theirs").c_str(), 0755), 0);
  ASSERT_EQ(::mkdir((s / "theirs/vorn").c_str(), 0755), 0);
  ASSERT_EQ(::chown((s / "theirs").c_str(), kNobody, kNobody), 0);
  // Its owner could rename ours away and put their own in its place.
  EXPECT_EQ(refusal(s / "theirs/vorn"), "table root " + (s / "theirs/vorn") + " lies under " + (s / "theirs") +
                                            ", which is owned by uid 65534 (nobody), not by root: set VORN_ROOT to "
                                            "a directory you own");
  ASSERT_EQ(::mkdir((s / "open").c_str(), 0777), 0);
  ASSERT_EQ(::chmod((s / "open").c_str(), 0777), 0);
  EXPECT_NE(refusal(s / "open/vorn", true).find("which group or others may write and which is not sticky (mode 0777"),
            std::string::npos);
  // Sticky, as /tmp and /dev/shm: nobody may remove what is ours there.
  ASSERT_EQ(::chmod((s / "open").c_str(), 01777), 0);
  EXPECT_EQ(refusal(s / "open/vorn", true), "");
  ASSERT_EQ(::symlink((s / "open").c_str(), (s / "ours").c_str()), 0);
  EXPECT_EQ(refusal(s / "ours/vorn"), "");
  ASSERT_EQ(::lchown((s / "ours").c_str(), kNobody, kNobody), 0);
  EXPECT_NE(refusal(s / "ours/vorn")
                .find("lies under the symbolic link " + (s / "ours") + ", which is owned by uid 65534 (nobody)"),
            std::string::npos);
}

TEST(PathTrust, AnotherUserTrustsItselfAndRootButNoThirdUser) {
  NEEDS_ROOT();
  Scratch s;
  ASSERT_EQ(::mkdir((s / "roots").c_str(), 0755), 0);
  ASSERT_EQ(::mkdir((s / "third").c_str(), 0755), 0);
  ASSERT_EQ(::chown((s / "third").c_str(), kNobody - 1, kNobody - 1), 0);
  EXPECT_EQ(asUser(kNobody, [&] { return refusal(s / "roots"); }), "");
  std::string const third = asUser(kNobody, [&] { return refusal(s / "third"); });
  EXPECT_NE(third.find("is owned by uid 65533"), std::string::npos) << third;
  EXPECT_NE(third.find(", not by uid 65534 (nobody) or root: remove it"), std::string::npos) << third;
  EXPECT_EQ(asUser(kNobody, [&] { return refusal(s / "roots/vorn", true); }),
            "cannot create table root " + (s / "roots/vorn") + ": mkdir(" + (s / "roots/vorn") +
                "): Permission denied: set VORN_ROOT to a directory you own");
}

TEST(PathTrust, AFileMustBeRegularOfThisUserOrRootAndNotWritableByOthers) {
  Scratch s;
  auto check = [](std::string const& path) -> std::string {
    int const fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    try {
      PathTrust::fileCheck(fd, path, "table file");
      ::close(fd);
      return "";
    } catch (Kiv::UntrustedPathException const& e) {
      ::close(fd);
      return e.what();
    }
  };
  std::string const f = s / "t.vorn";
  ::close(::open(f.c_str(), O_CREAT | O_WRONLY, 0644));
  EXPECT_EQ(check(f), "");
  ASSERT_EQ(::chmod(f.c_str(), 0664), 0);
  EXPECT_EQ(check(f), "table file " + f + " is writable by group or others (mode 0664, owned by " + me +
                          "): run chmod go-w on it or remove it");
  ASSERT_EQ(::mkfifo((s / "fifo").c_str(), 0600), 0);
  EXPECT_NE(check(s / "fifo").find(" is not a regular file"), std::string::npos);
  if (::geteuid() != 0) return;
  ASSERT_EQ(::chmod(f.c_str(), 0644), 0);
  ASSERT_EQ(::chown(f.c_str(), kNobody, kNobody), 0);
  EXPECT_EQ(check(f), "table file " + f + " is owned by uid 65534 (nobody), not by root: remove it");
}

TEST(PathTrust, RuntimeDirIsTheVariableElseRunForRootElseTheUsersRuntimeDir) {
  char const* saved = std::getenv("VORN_ROOT");
  std::string const keep = saved ? saved : "";
  ::setenv("VORN_ROOT", "/somewhere/else", 1);
  EXPECT_EQ(PathTrust::runtimeDir("vorn", "VORN_ROOT"), "/somewhere/else");
  ::setenv("VORN_ROOT", "", 1);
  if (::geteuid() == 0) {
    EXPECT_EQ(PathTrust::runtimeDir("vorn", "VORN_ROOT"), "/run/vorn");
    auto other = [](char const* xdg) {
      return asUser(kNobody, [xdg] {
        if (xdg) {
          ::setenv("XDG_RUNTIME_DIR", xdg, 1);
        } else {
          ::unsetenv("XDG_RUNTIME_DIR");
        }
        return PathTrust::runtimeDir("vorn", "VORN_ROOT");
      });
    };
    EXPECT_EQ(other("/run/user/65534"), "/run/user/65534/vorn");
    EXPECT_EQ(other(nullptr),
              "exception: neither VORN_ROOT nor XDG_RUNTIME_DIR is set (/run/vorn is root's): set one of them");
  }
  if (saved) {
    ::setenv("VORN_ROOT", keep.c_str(), 1);
  } else {
    ::unsetenv("VORN_ROOT");
  }
}
