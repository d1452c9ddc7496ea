/* Forced in front of the generated proxy/stub file: mingw-w64's unknwn.h declares the IUnknown
   proxy helpers for C++ only, and the C proxy file calls them. */
#ifndef KRONVALE_PROXY_PROLOGUE_H
#define KRONVALE_PROXY_PROLOGUE_H
#include <objbase.h>
HRESULT STDMETHODCALLTYPE IUnknown_QueryInterface_Proxy(IUnknown* This, REFIID riid, void** ppvObject);
ULONG STDMETHODCALLTYPE IUnknown_AddRef_Proxy(IUnknown* This);
ULONG STDMETHODCALLTYPE IUnknown_Release_Proxy(IUnknown* This);
#endif
