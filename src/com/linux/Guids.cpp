// The identifiers of the system interfaces, which Windows programs take from libuuid.
#include "com/ComBase.h"

EXTERN_C const GUID GUID_NULL = {0, 0, 0, {0, 0, 0, 0, 0, 0, 0, 0}};
EXTERN_C const IID IID_NULL = {0, 0, 0, {0, 0, 0, 0, 0, 0, 0, 0}};
EXTERN_C const CLSID CLSID_NULL = {0, 0, 0, {0, 0, 0, 0, 0, 0, 0, 0}};

EXTERN_C const IID IID_IUnknown = __uuidof(IUnknown);
EXTERN_C const IID IID_IClassFactory = __uuidof(IClassFactory);
EXTERN_C const IID IID_ISequentialStream = __uuidof(ISequentialStream);
EXTERN_C const IID IID_IStream = __uuidof(IStream);
EXTERN_C const IID IID_IMarshal = __uuidof(IMarshal);
