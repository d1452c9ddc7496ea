#include "common/SmallVolume.h"

#ifndef _WIN32
#include <sys/mount.h>
#endif

#include <string>

namespace NSTest {

CSmallVolume::CSmallVolume(const WString& strDirectory, unsigned cMiB)
    : m_strDirectory(NSPlatform::WideToUtf8(strDirectory)) {
  NSPlatform::CreateDirTree(strDirectory.c_str());
#ifndef _WIN32
  const std::string strOptions = "size=" + std::to_string(cMiB) + "m";
  m_bMounted = mount("kronvale-test", m_strDirectory.c_str(), "tmpfs", 0, strOptions.c_str()) == 0;
#else
  (void)cMiB;
#endif
}

CSmallVolume::~CSmallVolume() {
#ifndef _WIN32
  if (m_bMounted) umount2(m_strDirectory.c_str(), MNT_DETACH);
#endif
}

}  // namespace NSTest
