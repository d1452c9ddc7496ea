// Linux stand-in for the SDK's <objbase.h>, for widl's output: see sdkbase.h.
#pragma once
#include "sdkbase.h"
