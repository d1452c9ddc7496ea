// Crash tests on Linux: a small volume of its own to fill up, and this test program run again as a
// child process, so that a crash of the scenario (a signal) is a failure of the parent's test and
// never leaves the volume mounted.
#pragma once

#include <gtest/gtest.h>

#include <spawn.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

extern char** environ;

namespace NSTest {

// A 64 MiB file system mounted on a directory of a scratch directory, for as long as the object
// lives: ext4 on a loop device (what recorders have), else tmpfs. Neither can be had without the
// right to mount (a container, a user without privileges): Mounted() is then false and the caller
// skips.
class CSmallVolume {
 public:
  explicit CSmallVolume(const std::string& strScratch) : m_strMount(strScratch + "/volume") {
    ::mkdir(m_strMount.c_str(), 0755);
    const std::string strImage = strScratch + "/volume.img";
    const std::string strQuiet = " >/dev/null 2>&1";
    if (std::system(("truncate -s 64M " + strImage + strQuiet).c_str()) == 0 &&
        std::system(("mkfs.ext4 -q -F -m 0 " + strImage + strQuiet).c_str()) == 0 &&
        std::system(("mount -o loop " + strImage + " " + m_strMount + strQuiet).c_str()) == 0) {
      m_strKind = "ext4";
    } else if (::mount("kv-test", m_strMount.c_str(), "tmpfs", 0, "size=64m") == 0) {
      m_strKind = "tmpfs";
    }
  }
  ~CSmallVolume() {
    if (!m_strKind.empty()) ::umount2(m_strMount.c_str(), MNT_DETACH);
  }
  CSmallVolume(const CSmallVolume&) = delete;
  CSmallVolume& operator=(const CSmallVolume&) = delete;

  bool Mounted() const { return !m_strKind.empty(); }
  const std::string& Kind() const { return m_strKind; }
  const std::string& Path() const { return m_strMount; }

 private:
  std::string m_strMount;
  std::string m_strKind;  // empty while nothing is mounted
};

constexpr char kszChildVariable[] = "KV_CRASH_TEST_DIRECTORY";

// Runs this test program again with the tests of one suite only and strDirectory in the
// environment. The child's exit code, or 128 + the signal that ended it.
inline int RunChild(const char* pszSuite, const std::string& strDirectory) {
  const std::string strFilter = std::string("--gtest_filter=") + pszSuite + ".*";
  char szSelf[4096] = {};
  if (::readlink("/proc/self/exe", szSelf, sizeof(szSelf) - 1) <= 0) return -1;
  ::setenv(kszChildVariable, strDirectory.c_str(), 1);
  char* apszArgs[] = {szSelf, const_cast<char*>(strFilter.c_str()), nullptr};
  pid_t pid = 0;
  const int nSpawn = ::posix_spawn(&pid, szSelf, nullptr, nullptr, apszArgs, environ);
  ::unsetenv(kszChildVariable);
  int nStatus = 0;
  if (nSpawn != 0 || ::waitpid(pid, &nStatus, 0) != pid) return -1;
  if (WIFSIGNALED(nStatus)) return 128 + WTERMSIG(nStatus);
  return WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : -1;
}

// The directory a child test works in; null when the test runs on its own (it then skips).
inline const char* ChildDirectory() { return std::getenv(kszChildVariable); }

}  // namespace NSTest
