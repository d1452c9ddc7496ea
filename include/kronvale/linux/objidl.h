// Linux stand-in for the SDK's <objidl.h>, for widl's output: see sdkbase.h.
#pragma once
#include "sdkbase.h"
