// The whole COM kit: the base, the object forms and COM maps, class objects, the module, smart
// pointers and CComBSTR.
#pragma once

#include "com/ClassFactory.h"
#include "com/ComBase.h"
#include "com/ComBstr.h"
#include "com/ComException.h"
#include "com/ComModule.h"
#include "com/ComObject.h"
#include "com/ComPtr.h"
