// A scratch directory for a test: made with a unique name under the platform's temporary directory,
// deleted with everything under it (read-only files and directories included) when the object goes.
// The same on both platforms, so file tests need no #ifdef.
#pragma once

#include <string>
#include <string_view>

#include "platform/os.h"

namespace NSTest {

class CTempDir {
 public:
  CTempDir();
  ~CTempDir();
  CTempDir(const CTempDir&) = delete;
  CTempDir& operator=(const CTempDir&) = delete;

  // Empty when the directory could not be made (a test then fails on its first file call).
  const WString& Path() const { return m_strPath; }
  // Path() joined with a relative name ("a", or "a/b" written with the platform's separator).
  WString Sub(WStringView strRelative) const;

 private:
  WString m_strPath;
};

// A whole file's bytes, written (created or replaced) and read back through the platform layer.
HRESULT WriteFileBytes(const WString& strPath, std::string_view bytes);
HRESULT ReadFileBytes(const WString& strPath, std::string* pBytes);
// A whole file's bytes; a file that cannot be read fails the test (naming the file) and reads empty.
std::string FileContents(const WString& strPath);

// Deletes a file or a directory tree, clearing read-only attributes on the way.
HRESULT DeleteTree(const WString& strPath);

}  // namespace NSTest
