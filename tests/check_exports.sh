#!/bin/sh
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
for symbol in 'adapter::QcomPostProcInfo::mSum' 'adapter::QcomPostProcInfo::mSumMutex' \
    'adapter::QcomPostProcInfo::mChiMetaSum' 'vtable for adapter::QcomPostProcInfo'; do
    printf '%s\n' "$exported" | grep -qx "$symbol" || { echo "missing export: $symbol"; exit 1; }
done
# Tables and bindings stay internal.
if nm -DC "$lib" | grep -E 'sAppMetaTagMap|sFeatureMaskNames|sAdvancedFeatureConcurrency|gIQBMHandle'; then
    echo "internal tables are exported"; exit 1
fi
# Platform stand-ins are resolved from their own libraries, never defined here.
if nm -C --defined-only "$lib" | grep -E ' [TtWw] (ChiMetadata::|ExtensionModule::|sim::|kydebug::Log::|IBMIntf|allocate_camera_metadata|property_get|AddDebugDataReference|SubDebugDataReference)'; then
    echo "simulation code linked into the library"; exit 1
fi
echo "exports: $(printf '%s\n' "$exported" | wc -l) symbols, all of the record class"
