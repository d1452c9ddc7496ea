/* The binary layout of the interfaces and records, held at compile time. Built as C with the
   Windows SDK headers, and as C++ with CINTERFACE on Linux (where the stand-in SDK headers need
   C++), so that both see the lpVtbl structs: a vtable is exactly its slots, the three IUnknown slots
   included. Nothing here runs; the target exists to be compiled. */
#ifndef CINTERFACE
#define CINTERFACE
#endif
#include <kronvale/kronvale.h>
#include <stddef.h>

#ifdef __cplusplus
#define KV_STATIC_ASSERT(e, m) static_assert(e, m)
#else
#define KV_STATIC_ASSERT(e, m) _Static_assert(e, m)
#endif

#define KV_SLOTS(itf, n) KV_STATIC_ASSERT(sizeof(itf##Vtbl) == (n) * sizeof(void*), #itf " has " #n " slots")

KV_SLOTS(IDescription, 6);
KV_SLOTS(IKronvale, 14);
KV_SLOTS(IKronvaleEx, 4);
KV_SLOTS(IKronvaleQuota, 5);
KV_SLOTS(IKronvaleInternal, 5);
KV_SLOTS(IStateControl, 6);
KV_SLOTS(IRecord, 16);
KV_SLOTS(IRecordEx, 19);
KV_SLOTS(IRecordFastCopy, 4);
KV_SLOTS(IRecordExtract, 3);
KV_SLOTS(IMultipartArchive, 19);
KV_SLOTS(IArchiveFactory, 7);
KV_SLOTS(IArchiveFactoryEx, 4);

/* The asynchronous twins: every method of the synchronous interface becomes two slots. */
KV_SLOTS(AsyncIDescription, 3 + 2 * 3);
KV_SLOTS(AsyncIKronvale, 3 + 2 * 11);
KV_SLOTS(AsyncIKronvaleEx, 3 + 2 * 1);
KV_SLOTS(AsyncIKronvaleQuota, 3 + 2 * 2);
KV_SLOTS(AsyncIKronvaleInternal, 3 + 2 * 2);
KV_SLOTS(AsyncIStateControl, 3 + 2 * 3);
KV_SLOTS(AsyncIRecord, 3 + 2 * 13);
KV_SLOTS(AsyncIRecordEx, 3 + 2 * 16);
KV_SLOTS(AsyncIMultipartArchive, 3 + 2 * 16);

/* An interface pointer is a pointer to its vtable and nothing more. */
KV_STATIC_ASSERT(sizeof(IRecord) == sizeof(void*), "IRecord is one vtable pointer");

/* Records at the boundary (x64). */
KV_STATIC_ASSERT(sizeof(SRecordStatistic) == 24, "SRecordStatistic is 24 bytes");
KV_STATIC_ASSERT(sizeof(SArchiveInfo) == 40, "SArchiveInfo is 40 bytes");
KV_STATIC_ASSERT(sizeof(SArchiveQuota) == 24, "SArchiveQuota is 24 bytes");
KV_STATIC_ASSERT(sizeof(SFrameBuffer) == 16, "SFrameBuffer is 16 bytes");
KV_STATIC_ASSERT(sizeof(SFrameFilter) == 8, "SFrameFilter is 8 bytes");
KV_STATIC_ASSERT(sizeof(SPartitionOptions) == 8, "SPartitionOptions is 8 bytes");
KV_STATIC_ASSERT(offsetof(SFrameBuffer, dwDataSize) == 8, "SFrameBuffer.dwDataSize at 8");
KV_STATIC_ASSERT(offsetof(SRecordStatistic, ftEnd) == 8 && offsetof(SRecordStatistic, dwCount) == 20,
                 "SRecordStatistic fields");
KV_STATIC_ASSERT(offsetof(SArchiveInfo, dwFlushTimeout) == 32 && offsetof(SArchiveInfo, dwAccess) == 36,
                 "SArchiveInfo fields");
KV_STATIC_ASSERT(offsetof(SArchiveQuota, lMaximumArchiveHours) == 16, "SArchiveQuota fields");
KV_STATIC_ASSERT(offsetof(SPartitionOptions, bOrder) == 4, "SPartitionOptions.bOrder at 4");
KV_STATIC_ASSERT(sizeof(EFrameFilterMode) == 4, "the filter mode is 32-bit in memory");

/* A translation unit must not be empty in C. */
int kv_interface_layout_checked(void) { return 1; }
