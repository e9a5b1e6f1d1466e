#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# The library exports the record class and its statics and nothing else,
# and carries no simulation code of its own.
set -eu
lib="$1"
exported=$(nm -DC --defined-only "$lib" | awk '{ $1 = ""; $2 = ""; sub(/^  /, ""); print }')
stray=$(printf '%s\n' "$exported" | grep -v -e '^adapter::QcomPostProcInfo::' \
    -e '^vtable for adapter::QcomPostProcInfo$' || true)
if [ -n "$stray" ]; then
    echo "unexpected exports:"; printf '%s\n' "$stray"; exit 1
fi
# Exactly the record's interface: the framework links these names, so a
# helper of the implementation must never join them.
interface='QcomPostProcInfo ~QcomPostProcInfo setName setMediator getName clone shallowClone
needUpdateToKymeta createTuningParams getTuningMetaBufs setTuningMetaBufs destroyTuningMetaBufs
releaseTuningMetaBufs createTuningMetaBufs createChiMeta destroyChiMeta dumpChiMeta addChiMetasRef
releaseChiMetasRef releaseChiMetasRefWithCameraId isMetaUsedInQC resetChiMetas transToAndroidMeta
transToAndroidMetaWithCameraId transAllToAndroidMetas supportSamePhysical createPrivResultMeta
destroyPrivResultMeta setHalRequestPrivResultMeta checkAndUpdatePrivResult keep3aDebugData
keepTuningDDArray addDebugDataAndRef reset mSum mSumMutex mChiMetaSum'
members=$(printf '%s\n' "$exported" | sed -n 's/^adapter::QcomPostProcInfo::\([~A-Za-z0-9_]*\).*/\1/p' | sort -u)
extra=$(printf '%s\n' "$members" | grep -vxF "$(printf '%s\n' $interface)" || true)
if [ -n "$extra" ]; then
    echo "exported members outside the record's interface:"; printf '%s\n' "$extra"; exit 1
fi
missing=$(printf '%s\n' $interface | grep -vxF "$members" || true)
if [ -n "$missing" ]; then
    echo "interface members not exported:"; printf '%s\n' "$missing"; exit 1
fi
printf '%s\n' "$exported" | grep -qx 'vtable for adapter::QcomPostProcInfo' ||
    { echo "missing export: vtable for adapter::QcomPostProcInfo"; exit 1; }
# Tables and bindings stay internal.
if nm -DC "$lib" | grep -E 'sAppMetaTagMap|sFeatureMaskNames|sAdvancedFeatureConcurrency|gIQBMHandle'; then
    echo "internal tables are exported"; exit 1
fi
# Platform stand-ins are resolved from their own libraries, never defined here.
if nm -C --defined-only "$lib" | grep -E ' [TtWw] (ChiMetadata::|ExtensionModule::|sim::|kydebug::Log::|IBMIntf|allocate_camera_metadata|property_get|AddDebugDataReference|SubDebugDataReference)'; then
    echo "simulation code linked into the library"; exit 1
fi
echo "exports: $(printf '%s\n' "$exported" | wc -l) symbols, all of the record class"
