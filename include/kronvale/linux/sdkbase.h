// What the Windows SDK headers give widl's output, on Linux: the COM base of the engine plus the
// few declaration words the generated interface header and identifier file use beyond it. Every
// other stand-in in this directory (windows.h, ole2.h, rpc.h, ...) includes this file and nothing
// else, so <kronvale/kronvale.h> and kronvale_i.c compile unchanged on Linux.
//
// C++ only: the COM base declares IUnknown as a C++ class. Code that wants the C layout of the
// interfaces (lpVtbl structs) defines CINTERFACE before including the header, still as C++.
#ifndef KRONVALE_LINUX_SDKBASE_H
#define KRONVALE_LINUX_SDKBASE_H

#ifndef __cplusplus
#error "On Linux the Kronvale interface header is C++; define CINTERFACE for the C layout."
#endif

#include <cstdint>

#include "com/ComBase.h"

// Identifiers defined in a header-like file (kronvale_i.c) may meet a second definition in another
// object; the linker keeps one, as it does with __declspec(selectany).
#ifndef DECLSPEC_SELECTANY
#define DECLSPEC_SELECTANY __attribute__((weak))
#endif
#ifndef DECLSPEC_HIDDEN
#define DECLSPEC_HIDDEN __attribute__((visibility("hidden")))
#endif
#ifndef FORCEINLINE
#define FORCEINLINE inline __attribute__((always_inline))
#endif
#ifndef WINAPI
#define WINAPI
#endif
#ifndef RPC_ENTRY
#define RPC_ENTRY
#endif
#ifndef __RPC_API
#define __RPC_API
#endif
#ifndef __RPC_CALLEE
#define __RPC_CALLEE
#endif
#ifndef DECLSPEC_NOTHROW
#define DECLSPEC_NOTHROW
#endif

// Source annotations some generators write into prototypes; they carry no code.
#ifndef _COM_Outptr_
#define _COM_Outptr_
#define _COM_Outptr_opt_
#define _In_
#define _In_opt_
#define _Out_
#define _Out_opt_
#define _Inout_
#define _Inout_opt_
#endif

// The library's entry points, as <objbase.h> declares them on Windows: a Linux client that links
// libkronvale.so calls DllGetClassObject directly.
STDAPI DllGetClassObject(REFCLSID rclsid, REFIID riid, LPVOID* ppv);
STDAPI DllCanUnloadNow();

#endif  // KRONVALE_LINUX_SDKBASE_H
