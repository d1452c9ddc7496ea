// The COM base: GUIDs, IUnknown and the system interfaces the engine serves or consumes, BSTR and
// the task allocator.
//
// On Windows all of it comes from the SDK headers. Linux has no COM, so this header declares the
// same names with the same layouts, identifiers and status codes, and src/com/linux/*.cpp
// implements the functions. Code above this header is one source for both: it writes
// __uuidof(IStream), REFIID, STDMETHOD(...) and SysAllocString exactly as it would on Windows.
#pragma once

#include "platform/wintypes.h"

#ifdef _WIN32

#include <objbase.h>
#include <objidl.h>
#include <oleauto.h>
#include <unknwn.h>

#else  // !_WIN32

#include <cstddef>
#include <cstdint>

// ---- Declaration helpers -------------------------------------------------------------------------

#ifndef EXTERN_C
#define EXTERN_C extern "C"
#endif

// The x64 Linux ABI has a single calling convention.
#define STDMETHODCALLTYPE
#define STDAPICALLTYPE
#define STDMETHOD(method) virtual HRESULT STDMETHODCALLTYPE method
#define STDMETHOD_(type, method) virtual type STDMETHODCALLTYPE method
#define STDMETHODIMP HRESULT STDMETHODCALLTYPE
#define STDMETHODIMP_(type) type STDMETHODCALLTYPE
#define STDAPI EXTERN_C HRESULT STDAPICALLTYPE
#define STDAPI_(type) EXTERN_C type STDAPICALLTYPE
#define PURE = 0
#define THIS_
#define THIS void

// What generated interface headers expect (widl's output compiles unchanged against these).
#define interface struct
#define DECLSPEC_NOVTABLE
#define DECLSPEC_UUID(x)
#define MIDL_INTERFACE(x) struct DECLSPEC_NOVTABLE
#define BEGIN_INTERFACE
#define END_INTERFACE
#define CONST_VTBL
#define __RPC_FAR
#define __RPC_USER
#define __RPC_STUB

// ---- Scalar types of the COM base ----------------------------------------------------------------

typedef int16_t SHORT;
typedef uint16_t USHORT;
typedef int64_t INT64;
typedef uint64_t UINT64;
typedef int64_t LONG64;
typedef uint64_t ULONG64;
typedef WCHAR OLECHAR;
typedef OLECHAR* LPOLESTR;
typedef const OLECHAR* LPCOLESTR;
typedef OLECHAR* BSTR;
typedef BSTR* LPBSTR;
typedef int16_t VARIANT_BOOL;
#define VARIANT_TRUE ((VARIANT_BOOL)-1)
#define VARIANT_FALSE ((VARIANT_BOOL)0)

// ---- Status codes of COM that the platform's list does not carry ----------------------------------

#ifndef CO_E_NOTINITIALIZED
#define CO_E_NOTINITIALIZED ((HRESULT)0x800401F0L)
#endif
#ifndef CO_E_CLASSSTRING
#define CO_E_CLASSSTRING ((HRESULT)0x800401F3L)
#endif
#ifndef CLASS_E_CLASSNOTAVAILABLE
#define CLASS_E_CLASSNOTAVAILABLE ((HRESULT)0x80040111L)
#endif
#ifndef CLASS_E_NOTLICENSED
#define CLASS_E_NOTLICENSED ((HRESULT)0x80040112L)
#endif
#ifndef E_BOUNDS
#define E_BOUNDS ((HRESULT)0x8000000BL)
#endif
#ifndef E_CHANGED_STATE
#define E_CHANGED_STATE ((HRESULT)0x8000000CL)
#endif
#ifndef RPC_E_DISCONNECTED
#define RPC_E_DISCONNECTED ((HRESULT)0x80010108L)
#endif
#ifndef RPC_E_CHANGED_MODE
#define RPC_E_CHANGED_MODE ((HRESULT)0x80010106L)
#endif
#ifndef DISP_E_OVERFLOW
#define DISP_E_OVERFLOW ((HRESULT)0x8002000AL)
#endif
#ifndef STG_E_FILENOTFOUND
#define STG_E_FILENOTFOUND ((HRESULT)0x80030002L)
#endif
#ifndef STG_E_ACCESSDENIED
#define STG_E_ACCESSDENIED ((HRESULT)0x80030005L)
#endif
#ifndef STG_E_INSUFFICIENTMEMORY
#define STG_E_INSUFFICIENTMEMORY ((HRESULT)0x80030008L)
#endif
#ifndef STG_E_WRITEFAULT
#define STG_E_WRITEFAULT ((HRESULT)0x8003001DL)
#endif
#ifndef STG_E_READFAULT
#define STG_E_READFAULT ((HRESULT)0x8003001EL)
#endif
#ifndef STG_E_LOCKVIOLATION
#define STG_E_LOCKVIOLATION ((HRESULT)0x80030021L)
#endif
#ifndef STG_E_INVALIDPARAMETER
#define STG_E_INVALIDPARAMETER ((HRESULT)0x80030057L)
#endif
#ifndef STG_E_INVALIDFLAG
#define STG_E_INVALIDFLAG ((HRESULT)0x800300FFL)
#endif
#ifndef STG_E_REVERTED
#define STG_E_REVERTED ((HRESULT)0x80030102L)
#endif
#ifndef STG_E_CANTSAVE
#define STG_E_CANTSAVE ((HRESULT)0x80030103L)
#endif

// ---- GUIDs ---------------------------------------------------------------------------------------

typedef struct _GUID {
  uint32_t Data1;  // unsigned long on Windows, where long is 32-bit
  uint16_t Data2;
  uint16_t Data3;
  uint8_t Data4[8];
} GUID;
static_assert(sizeof(GUID) == 16, "GUID is 16 bytes");

typedef GUID IID;
typedef GUID CLSID;
typedef GUID* LPGUID;
typedef IID* LPIID;
typedef CLSID* LPCLSID;
typedef const GUID& REFGUID;
typedef const IID& REFIID;
typedef const CLSID& REFCLSID;

inline bool IsEqualGUID(REFGUID a, REFGUID b) {
  return a.Data1 == b.Data1 && a.Data2 == b.Data2 && a.Data3 == b.Data3 && a.Data4[0] == b.Data4[0] &&
         a.Data4[1] == b.Data4[1] && a.Data4[2] == b.Data4[2] && a.Data4[3] == b.Data4[3] &&
         a.Data4[4] == b.Data4[4] && a.Data4[5] == b.Data4[5] && a.Data4[6] == b.Data4[6] &&
         a.Data4[7] == b.Data4[7];
}
inline bool IsEqualIID(REFIID a, REFIID b) { return IsEqualGUID(a, b); }
inline bool IsEqualCLSID(REFCLSID a, REFCLSID b) { return IsEqualGUID(a, b); }
inline bool InlineIsEqualGUID(REFGUID a, REFGUID b) { return IsEqualGUID(a, b); }
inline bool operator==(REFGUID a, REFGUID b) { return IsEqualGUID(a, b); }
inline bool operator!=(REFGUID a, REFGUID b) { return !IsEqualGUID(a, b); }

// As guiddef.h: a declaration, or the definition in the one translation unit that defines INITGUID
// before including this header.
#ifdef INITGUID
#define DEFINE_GUID(name, l, w1, w2, b1, b2, b3, b4, b5, b6, b7, b8) \
  EXTERN_C const GUID name;                                          \
  EXTERN_C const GUID name = {l, w1, w2, {b1, b2, b3, b4, b5, b6, b7, b8}}
#else
#define DEFINE_GUID(name, l, w1, w2, b1, b2, b3, b4, b5, b6, b7, b8) EXTERN_C const GUID name
#endif

// __uuidof as mingw-w64 provides it: a function template specialised per interface by
// __CRT_UUID_DECL, reached through the type of the argument (an interface or a pointer to one).
extern "C++" {
template <typename T>
struct __mingw_uuidof_s;
template <typename T>
constexpr const GUID& __mingw_uuidof();
}

#define __CRT_UUID_DECL(type, l, w1, w2, b1, b2, b3, b4, b5, b6, b7, b8) \
  extern "C++" {                                                       \
  template <>                                                          \
  struct __mingw_uuidof_s<type> {                                      \
    static constexpr IID __uuid_inst = {l, w1, w2, {b1, b2, b3, b4, b5, b6, b7, b8}}; \
  };                                                                   \
  template <>                                                          \
  constexpr const GUID& __mingw_uuidof<type>() {                       \
    return __mingw_uuidof_s<type>::__uuid_inst;                        \
  }                                                                    \
  template <>                                                          \
  constexpr const GUID& __mingw_uuidof<type*>() {                      \
    return __mingw_uuidof_s<type>::__uuid_inst;                        \
  }                                                                    \
  }

#define __uuidof(type) __mingw_uuidof<__typeof(type)>()

EXTERN_C const GUID GUID_NULL;
EXTERN_C const IID IID_NULL;
EXTERN_C const CLSID CLSID_NULL;

// ---- Task allocator and BSTR ---------------------------------------------------------------------

// Memory that crosses an interface: whoever receives it frees it with CoTaskMemFree.
EXTERN_C void* CoTaskMemAlloc(SIZE_T cb);
// A null pv allocates; cb 0 with a block frees it and answers null.
EXTERN_C void* CoTaskMemRealloc(void* pv, SIZE_T cb);
EXTERN_C void CoTaskMemFree(void* pv);

// A BSTR points at UTF-16 characters preceded by a 32-bit count of their bytes and followed by a
// zero character; embedded zeros are data. A null BSTR is a valid empty string.
EXTERN_C BSTR SysAllocString(const OLECHAR* psz);
EXTERN_C BSTR SysAllocStringLen(const OLECHAR* pch, UINT cch);
EXTERN_C BSTR SysAllocStringByteLen(LPCSTR psz, UINT cb);
EXTERN_C INT SysReAllocString(BSTR* pbstr, const OLECHAR* psz);
EXTERN_C INT SysReAllocStringLen(BSTR* pbstr, const OLECHAR* pch, UINT cch);
EXTERN_C UINT SysStringLen(BSTR bstr);
EXTERN_C UINT SysStringByteLen(BSTR bstr);
EXTERN_C void SysFreeString(BSTR bstr);

// ---- IUnknown and IClassFactory ------------------------------------------------------------------

EXTERN_C const IID IID_IUnknown;
EXTERN_C const IID IID_IClassFactory;
EXTERN_C const IID IID_ISequentialStream;
EXTERN_C const IID IID_IStream;
EXTERN_C const IID IID_IMarshal;

// No virtual destructor: the vtable must be exactly the three IUnknown slots, so objects are
// destroyed by their own Release.
MIDL_INTERFACE("00000000-0000-0000-C000-000000000046")
IUnknown {
  BEGIN_INTERFACE
  STDMETHOD(QueryInterface)(REFIID riid, void** ppvObject) = 0;
  STDMETHOD_(ULONG, AddRef)() = 0;
  STDMETHOD_(ULONG, Release)() = 0;
  // Typed helper as in the SDK: deduces the IID from the pointer's type.
  template <class Q>
  HRESULT STDMETHODCALLTYPE QueryInterface(Q** pp) {
    return QueryInterface(__uuidof(Q), reinterpret_cast<void**>(pp));
  }
  END_INTERFACE
};
typedef IUnknown* LPUNKNOWN;
__CRT_UUID_DECL(IUnknown, 0x00000000, 0x0000, 0x0000, 0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46)

MIDL_INTERFACE("00000001-0000-0000-C000-000000000046")
IClassFactory : public IUnknown {
  STDMETHOD(CreateInstance)(IUnknown* pUnkOuter, REFIID riid, void** ppvObject) = 0;
  STDMETHOD(LockServer)(BOOL fLock) = 0;
};
typedef IClassFactory* LPCLASSFACTORY;
__CRT_UUID_DECL(IClassFactory, 0x00000001, 0x0000, 0x0000, 0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46)

// ---- Streams -------------------------------------------------------------------------------------

typedef enum tagSTREAM_SEEK { STREAM_SEEK_SET = 0, STREAM_SEEK_CUR = 1, STREAM_SEEK_END = 2 } STREAM_SEEK;

typedef enum tagSTGTY { STGTY_STORAGE = 1, STGTY_STREAM = 2, STGTY_LOCKBYTES = 3, STGTY_PROPERTY = 4 } STGTY;

typedef enum tagSTGC {
  STGC_DEFAULT = 0,
  STGC_OVERWRITE = 1,
  STGC_ONLYIFCURRENT = 2,
  STGC_DANGEROUSLYCOMMITMERELYTODISKCACHE = 4,
  STGC_CONSOLIDATE = 8
} STGC;

typedef enum tagSTATFLAG { STATFLAG_DEFAULT = 0, STATFLAG_NONAME = 1, STATFLAG_NOOPEN = 2 } STATFLAG;

typedef enum tagLOCKTYPE { LOCK_WRITE = 1, LOCK_EXCLUSIVE = 2, LOCK_ONLYONCE = 4 } LOCKTYPE;

#define STGM_READ 0x00000000L
#define STGM_WRITE 0x00000001L
#define STGM_READWRITE 0x00000002L
#define STGM_SHARE_DENY_NONE 0x00000040L
#define STGM_SHARE_DENY_READ 0x00000030L
#define STGM_SHARE_DENY_WRITE 0x00000020L
#define STGM_SHARE_EXCLUSIVE 0x00000010L
#define STGM_CREATE 0x00001000L

typedef struct tagSTATSTG {
  LPOLESTR pwcsName;  // task-allocated; the caller frees it unless STATFLAG_NONAME was given
  DWORD type;
  ULARGE_INTEGER cbSize;
  FILETIME mtime;
  FILETIME ctime;
  FILETIME atime;
  DWORD grfMode;
  DWORD grfLocksSupported;
  CLSID clsid;
  DWORD grfStateBits;
  DWORD reserved;
} STATSTG;

MIDL_INTERFACE("0C733A30-2A1C-11CE-ADE5-00AA0044773D")
ISequentialStream : public IUnknown {
  STDMETHOD(Read)(void* pv, ULONG cb, ULONG* pcbRead) = 0;
  STDMETHOD(Write)(const void* pv, ULONG cb, ULONG* pcbWritten) = 0;
};
__CRT_UUID_DECL(ISequentialStream, 0x0C733A30, 0x2A1C, 0x11CE, 0xAD, 0xE5, 0x00, 0xAA, 0x00, 0x44, 0x77, 0x3D)

MIDL_INTERFACE("0000000C-0000-0000-C000-000000000046")
IStream : public ISequentialStream {
  STDMETHOD(Seek)(LARGE_INTEGER dlibMove, DWORD dwOrigin, ULARGE_INTEGER* plibNewPosition) = 0;
  STDMETHOD(SetSize)(ULARGE_INTEGER libNewSize) = 0;
  STDMETHOD(CopyTo)(IStream* pstm, ULARGE_INTEGER cb, ULARGE_INTEGER* pcbRead, ULARGE_INTEGER* pcbWritten) = 0;
  STDMETHOD(Commit)(DWORD grfCommitFlags) = 0;
  STDMETHOD(Revert)() = 0;
  STDMETHOD(LockRegion)(ULARGE_INTEGER libOffset, ULARGE_INTEGER cb, DWORD dwLockType) = 0;
  STDMETHOD(UnlockRegion)(ULARGE_INTEGER libOffset, ULARGE_INTEGER cb, DWORD dwLockType) = 0;
  STDMETHOD(Stat)(STATSTG* pstatstg, DWORD grfStatFlag) = 0;
  STDMETHOD(Clone)(IStream** ppstm) = 0;
};
typedef IStream* LPSTREAM;
__CRT_UUID_DECL(IStream, 0x0000000C, 0x0000, 0x0000, 0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46)

// ---- Marshaling ----------------------------------------------------------------------------------

typedef enum tagMSHCTX {
  MSHCTX_LOCAL = 0,
  MSHCTX_NOSHAREDMEM = 1,
  MSHCTX_DIFFERENTMACHINE = 2,
  MSHCTX_INPROC = 3,
  MSHCTX_CROSSCTX = 4
} MSHCTX;

typedef enum tagMSHLFLAGS {
  MSHLFLAGS_NORMAL = 0,
  MSHLFLAGS_TABLESTRONG = 1,
  MSHLFLAGS_TABLEWEAK = 2,
  MSHLFLAGS_NOPING = 4
} MSHLFLAGS;

MIDL_INTERFACE("00000003-0000-0000-C000-000000000046")
IMarshal : public IUnknown {
  STDMETHOD(GetUnmarshalClass)(REFIID riid, void* pv, DWORD dwDestContext, void* pvDestContext, DWORD mshlflags,
                               CLSID* pCid) = 0;
  STDMETHOD(GetMarshalSizeMax)(REFIID riid, void* pv, DWORD dwDestContext, void* pvDestContext, DWORD mshlflags,
                               DWORD* pSize) = 0;
  STDMETHOD(MarshalInterface)(IStream* pStm, REFIID riid, void* pv, DWORD dwDestContext, void* pvDestContext,
                              DWORD mshlflags) = 0;
  STDMETHOD(UnmarshalInterface)(IStream* pStm, REFIID riid, void** ppv) = 0;
  STDMETHOD(ReleaseMarshalData)(IStream* pStm) = 0;
  STDMETHOD(DisconnectObject)(DWORD dwReserved) = 0;
};
typedef IMarshal* LPMARSHAL;
__CRT_UUID_DECL(IMarshal, 0x00000003, 0x0000, 0x0000, 0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46)

#endif  // !_WIN32
