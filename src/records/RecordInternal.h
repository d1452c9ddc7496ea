// Interfaces between the engine's own objects. They are never marshaled and have no proxy: a record
// and its archive always live in one process and talk through plain vtable calls. Each still has an
// identifier, so that an object can tell by QueryInterface whether a partner is one of ours.
#pragma once

#include <kronvale/kronvale.h>

#include "com/ComBase.h"
#include "platform/os.h"

// Answered only by the archive objects of this library: a record writes only under such a parent.
MIDL_INTERFACE("CE0FB241-3685-498B-958F-D311E035E672")
IRecordParent : public IUnknown {
  // A write or a flush of one of the archive's records found the volume full: the archive measures
  // itself and applies its quota now rather than at its next period, so that a recorder whose
  // archive has a free-space limit goes on recording over its oldest hours. Takes no lock.
  STDMETHOD_(void, OnOutOfSpace)() = 0;
};
__CRT_UUID_DECL(IRecordParent, 0xCE0FB241, 0x3685, 0x498B, 0x95, 0x8F, 0xD3, 0x11, 0xE0, 0x35, 0xE6, 0x72)

// What the archive and the record's own maintenance need of a record beyond its public interfaces.
MIDL_INTERFACE("CF3B929E-6698-49F8-A64F-61A0CE917117")
IRecordInternal : public IUnknown {
  // Called once by the archive right after construction: the parent, the record directory (made
  // when missing), the hour-open option word (nonzero: hours are opened buffered) and the access
  // mode (low two bits 3: a writer; bit 4: the archive takes no more data).
  STDMETHOD(Create)(IKronvale * pParent, const WCHAR* pszPath, DWORD dwHourOpenOptions, DWORD dwAccessMode) = 0;
  STDMETHOD_(DWORD, GetAccessMode)() = 0;
  // Bytes the record's open hour takes on disk; 0 when none is open.
  STDMETHOD_(ULONGLONG, GetCurrentHourSize)() = 0;
  // Hands what the open hour holds in the system's buffers to the disk (buffered hours only):
  // S_OK when something was flushed, S_FALSE when there was nothing to flush.
  STDMETHOD(FlushCurrentHour)() = 0;
  // How many hour directories the record holds.
  STDMETHOD_(DWORD, GetHourCount)() = 0;
  // The relative path of the open hour ("" when none), and whether it was opened by a write.
  STDMETHOD(GetCurrentHourPath)(WString * pstrHourPath) = 0;
  // The existing hour directory nearest after (bForward) or before strHourPath, relative to the
  // record directory; "" when there is none. An empty strHourPath asks for the first (or last) hour.
  STDMETHOD(FindClosestHourPath)(const WString& strHourPath, bool bForward, WString* pstrFound) = 0;
  // Repairs one hour of this record in place (writers only).
  STDMETHOD(RepairHour)(const WCHAR* pszHourPath) = 0;
  // While the busy count is 1 or more, no hour is opened or switched: reads, writes and searches
  // answer E_PENDING.
  STDMETHOD_(LONG, EnterBusy)() = 0;
  STDMETHOD_(LONG, LeaveBusy)() = 0;
};
__CRT_UUID_DECL(IRecordInternal, 0xCF3B929E, 0x6698, 0x49F8, 0xA6, 0x4F, 0x61, 0xA0, 0xCE, 0x91, 0x71, 0x17)
