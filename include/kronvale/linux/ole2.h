// Linux stand-in for the SDK's <ole2.h>, for widl's output: see sdkbase.h.
#pragma once
#include "sdkbase.h"
