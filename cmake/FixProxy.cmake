# Makes widl's proxy/stub file usable: the RPC runtime writes into the asynchronous stub tables on
# first use, so they must not be const (widl emits them static const and the first marshal of an
# asynchronous-capable interface would crash). Run as: cmake -DFILE=<kronvale_p.c> -P FixProxy.cmake
file(READ "${FILE}" text)
string(REPLACE "static const CInterfaceStubVtbl _Async" "static CInterfaceStubVtbl _Async" text "${text}")
file(WRITE "${FILE}" "${text}")
