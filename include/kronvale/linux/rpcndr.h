// Linux stand-in for the SDK's <rpcndr.h>, for widl's output: see sdkbase.h. There is no RPC runtime
// on Linux; only the declaration words of the generated files are needed.
#pragma once
#include "sdkbase.h"
