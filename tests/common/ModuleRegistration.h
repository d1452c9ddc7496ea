// What the module's registration writes, shared by the test against the registry in memory and the
// test against the system registry.
#pragma once

#include <string>

namespace NSTest {

// Everything scripts 101 to 104 write, in CMemoryRegistry::Dump's form, the library's path as %MODULE%.
inline constexpr char kszModuleRegistered[] =
    "HKCR\\AppID\n"
    "HKCR\\AppID\\Kronvale.DLL\n"
    "HKCR\\AppID\\Kronvale.DLL [AppID] = '{3E3C0CF5-0797-458B-A2DD-3574998A4B14}'\n"
    "HKCR\\AppID\\{3E3C0CF5-0797-458B-A2DD-3574998A4B14}\n"
    "HKCR\\AppID\\{3E3C0CF5-0797-458B-A2DD-3574998A4B14} = 'Kronvale'\n"
    "HKCR\\CLSID\n"
    "HKCR\\CLSID\\{2F42387D-15C5-4C16-B9B8-44E099A9F560}\n"
    "HKCR\\CLSID\\{2F42387D-15C5-4C16-B9B8-44E099A9F560} = 'RecordExtract Class'\n"
    "HKCR\\CLSID\\{2F42387D-15C5-4C16-B9B8-44E099A9F560} [AppID] = '{3E3C0CF5-0797-458B-A2DD-3574998A4B14}'\n"
    "HKCR\\CLSID\\{2F42387D-15C5-4C16-B9B8-44E099A9F560}\\InprocServer32\n"
    "HKCR\\CLSID\\{2F42387D-15C5-4C16-B9B8-44E099A9F560}\\InprocServer32 = '%MODULE%'\n"
    "HKCR\\CLSID\\{2F42387D-15C5-4C16-B9B8-44E099A9F560}\\InprocServer32 [ThreadingModel] = 'Both'\n"
    "HKCR\\CLSID\\{2F42387D-15C5-4C16-B9B8-44E099A9F560}\\ProgID\n"
    "HKCR\\CLSID\\{2F42387D-15C5-4C16-B9B8-44E099A9F560}\\ProgID = 'Kronvale.RecordExtract.1'\n"
    "HKCR\\CLSID\\{2F42387D-15C5-4C16-B9B8-44E099A9F560}\\TypeLib\n"
    "HKCR\\CLSID\\{2F42387D-15C5-4C16-B9B8-44E099A9F560}\\TypeLib = '{A65A3C72-B362-4928-9C8C-349AC0C5DFF8}'\n"
    "HKCR\\CLSID\\{2F42387D-15C5-4C16-B9B8-44E099A9F560}\\VersionIndependentProgID\n"
    "HKCR\\CLSID\\{2F42387D-15C5-4C16-B9B8-44E099A9F560}\\VersionIndependentProgID = 'Kronvale.RecordExtract'\n"
    "HKCR\\CLSID\\{78AD445A-55DC-40C3-AC1D-774A80581CF7}\n"
    "HKCR\\CLSID\\{78AD445A-55DC-40C3-AC1D-774A80581CF7} = 'Kronvale Class'\n"
    "HKCR\\CLSID\\{78AD445A-55DC-40C3-AC1D-774A80581CF7} [AppID] = '{3E3C0CF5-0797-458B-A2DD-3574998A4B14}'\n"
    "HKCR\\CLSID\\{78AD445A-55DC-40C3-AC1D-774A80581CF7}\\InprocServer32\n"
    "HKCR\\CLSID\\{78AD445A-55DC-40C3-AC1D-774A80581CF7}\\InprocServer32 = '%MODULE%'\n"
    "HKCR\\CLSID\\{78AD445A-55DC-40C3-AC1D-774A80581CF7}\\InprocServer32 [ThreadingModel] = 'Both'\n"
    "HKCR\\CLSID\\{78AD445A-55DC-40C3-AC1D-774A80581CF7}\\ProgID\n"
    "HKCR\\CLSID\\{78AD445A-55DC-40C3-AC1D-774A80581CF7}\\ProgID = 'Kronvale.Kronvale.1'\n"
    "HKCR\\CLSID\\{78AD445A-55DC-40C3-AC1D-774A80581CF7}\\TypeLib\n"
    "HKCR\\CLSID\\{78AD445A-55DC-40C3-AC1D-774A80581CF7}\\TypeLib = '{A65A3C72-B362-4928-9C8C-349AC0C5DFF8}'\n"
    "HKCR\\CLSID\\{78AD445A-55DC-40C3-AC1D-774A80581CF7}\\VersionIndependentProgID\n"
    "HKCR\\CLSID\\{78AD445A-55DC-40C3-AC1D-774A80581CF7}\\VersionIndependentProgID = 'Kronvale.Kronvale'\n"
    "HKCR\\CLSID\\{E07A6959-FE49-42DB-B27B-0A427430FF87}\n"
    "HKCR\\CLSID\\{E07A6959-FE49-42DB-B27B-0A427430FF87} = 'Record Class'\n"
    "HKCR\\CLSID\\{E07A6959-FE49-42DB-B27B-0A427430FF87} [AppID] = '{3E3C0CF5-0797-458B-A2DD-3574998A4B14}'\n"
    "HKCR\\CLSID\\{E07A6959-FE49-42DB-B27B-0A427430FF87}\\InprocServer32\n"
    "HKCR\\CLSID\\{E07A6959-FE49-42DB-B27B-0A427430FF87}\\InprocServer32 = '%MODULE%'\n"
    "HKCR\\CLSID\\{E07A6959-FE49-42DB-B27B-0A427430FF87}\\InprocServer32 [ThreadingModel] = 'Both'\n"
    "HKCR\\CLSID\\{E07A6959-FE49-42DB-B27B-0A427430FF87}\\ProgID\n"
    "HKCR\\CLSID\\{E07A6959-FE49-42DB-B27B-0A427430FF87}\\ProgID = 'Kronvale.Record.1'\n"
    "HKCR\\CLSID\\{E07A6959-FE49-42DB-B27B-0A427430FF87}\\TypeLib\n"
    "HKCR\\CLSID\\{E07A6959-FE49-42DB-B27B-0A427430FF87}\\TypeLib = '{A65A3C72-B362-4928-9C8C-349AC0C5DFF8}'\n"
    "HKCR\\CLSID\\{E07A6959-FE49-42DB-B27B-0A427430FF87}\\VersionIndependentProgID\n"
    "HKCR\\CLSID\\{E07A6959-FE49-42DB-B27B-0A427430FF87}\\VersionIndependentProgID = 'Kronvale.Record'\n"
    "HKCR\\Kronvale.Kronvale\n"
    "HKCR\\Kronvale.Kronvale = 'Kronvale Class'\n"
    "HKCR\\Kronvale.Kronvale\\CLSID\n"
    "HKCR\\Kronvale.Kronvale\\CLSID = '{78AD445A-55DC-40C3-AC1D-774A80581CF7}'\n"
    "HKCR\\Kronvale.Kronvale\\CurVer\n"
    "HKCR\\Kronvale.Kronvale\\CurVer = 'Kronvale.Kronvale.1'\n"
    "HKCR\\Kronvale.Kronvale.1\n"
    "HKCR\\Kronvale.Kronvale.1 = 'Kronvale Class'\n"
    "HKCR\\Kronvale.Kronvale.1\\CLSID\n"
    "HKCR\\Kronvale.Kronvale.1\\CLSID = '{78AD445A-55DC-40C3-AC1D-774A80581CF7}'\n"
    "HKCR\\Kronvale.Record\n"
    "HKCR\\Kronvale.Record = 'Record Class'\n"
    "HKCR\\Kronvale.Record\\CLSID\n"
    "HKCR\\Kronvale.Record\\CLSID = '{E07A6959-FE49-42DB-B27B-0A427430FF87}'\n"
    "HKCR\\Kronvale.Record\\CurVer\n"
    "HKCR\\Kronvale.Record\\CurVer = 'Kronvale.Record.1'\n"
    "HKCR\\Kronvale.Record.1\n"
    "HKCR\\Kronvale.Record.1 = 'Record Class'\n"
    "HKCR\\Kronvale.Record.1\\CLSID\n"
    "HKCR\\Kronvale.Record.1\\CLSID = '{E07A6959-FE49-42DB-B27B-0A427430FF87}'\n"
    "HKCR\\Kronvale.RecordExtract\n"
    "HKCR\\Kronvale.RecordExtract = 'RecordExtract Class'\n"
    "HKCR\\Kronvale.RecordExtract\\CLSID\n"
    "HKCR\\Kronvale.RecordExtract\\CLSID = '{2F42387D-15C5-4C16-B9B8-44E099A9F560}'\n"
    "HKCR\\Kronvale.RecordExtract\\CurVer\n"
    "HKCR\\Kronvale.RecordExtract\\CurVer = 'Kronvale.RecordExtract.1'\n"
    "HKCR\\Kronvale.RecordExtract.1\n"
    "HKCR\\Kronvale.RecordExtract.1 = 'RecordExtract Class'\n"
    "HKCR\\Kronvale.RecordExtract.1\\CLSID\n"
    "HKCR\\Kronvale.RecordExtract.1\\CLSID = '{2F42387D-15C5-4C16-B9B8-44E099A9F560}'\n";

// kszModuleRegistered with the library's path in place.
inline std::string ModuleRegistered(const std::string& strModule) {
  std::string str = kszModuleRegistered;
  for (size_t i = str.find("%MODULE%"); i != std::string::npos; i = str.find("%MODULE%", i + strModule.size())) {
    str.replace(i, 8, strModule);
  }
  return str;
}

}  // namespace NSTest
