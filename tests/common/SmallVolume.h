// A small file system of its own for one test: a tmpfs mounted on a directory inside the test's
// temporary directory (Linux, where the process may mount), so that a volume really fills.
#pragma once

#include "platform/os.h"

namespace NSTest {

class CSmallVolume {
 public:
  // Makes strDirectory and mounts a volume of cMiB there; IsMounted says whether it worked.
  CSmallVolume(const WString& strDirectory, unsigned cMiB);
  ~CSmallVolume();
  CSmallVolume(const CSmallVolume&) = delete;
  CSmallVolume& operator=(const CSmallVolume&) = delete;
  bool IsMounted() const { return m_bMounted; }

 private:
  std::string m_strDirectory;
  bool m_bMounted = false;
};

}  // namespace NSTest
