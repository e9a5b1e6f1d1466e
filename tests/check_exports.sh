#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# The library exports the record class and its statics and nothing else,
# its vtable holds what the framework's compiled code calls, and it carries no
# simulation code of its own.
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
# The framework calls slot k of whatever vtable a record carries: the vtable's
# relocations name, slot by slot, the functions it links against there. The
# two words before slot 0 (offset to top, type info) stay null: no RTTI.
# Standard library types are named as the library was built: libc++'s
# (std::__1, the phone's) or libstdc++'s (a glibc host's).
if nm -D "$lib" | grep -q 'NSt3__1'; then
    string='NSt3__112basic_stringIcNS1_11char_traitsIcEENS1_9allocatorIcEEEE'
    mediator='NSt3__110shared_ptrIN5kycam9IMediatorEEE'
    name='7getNameEv'
    function='NSt3__18functionIFNS4_12basic_stringIcNS4_11char_traitsIcEENS4_9allocatorIcEEEEvEEEb'
else
    string='NSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE'
    mediator='St10shared_ptrIN5kycam9IMediatorEE'
    name='7getNameB5cxx11Ev'
    function='St8functionIFNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEEvEEb'
fi
slots="_ZN7adapter16QcomPostProcInfoD1Ev _ZN7adapter16QcomPostProcInfoD0Ev
_ZN7adapter16QcomPostProcInfo7setNameE$string
_ZN7adapter16QcomPostProcInfo11setMediatorE$mediator
_ZNK7adapter16QcomPostProcInfo$name _ZN7adapter16QcomPostProcInfo5cloneEb
_ZN7adapter16QcomPostProcInfo12shallowCloneEb _ZN7adapter16QcomPostProcInfo18needUpdateToKymetaEv
_ZN7adapter16QcomPostProcInfo18createTuningParamsEv
_ZN7adapter16QcomPostProcInfo17getTuningMetaBufsERN5kycam16TuningParamsBaseE$function
_ZN7adapter16QcomPostProcInfo17setTuningMetaBufsERN5kycam16TuningParamsBaseE
_ZN7adapter16QcomPostProcInfo21destroyTuningMetaBufsEv _ZN7adapter16QcomPostProcInfo21releaseTuningMetaBufsEb
_ZN7adapter16QcomPostProcInfo20createTuningMetaBufsEv
_ZN12PostProcInfo17onPipelineStartedEv _ZN12PostProcInfo18onPipelineFinishedEv"
# The phone's build packs its relocations (Android's own format), which
# LLVM's readelf reads.
readelf=$(command -v llvm-readelf-14 || command -v readelf)
set -- $(nm -D -S "$lib" | awk '$4 == "_ZTVN7adapter16QcomPostProcInfoE" { print $1, $2 }')
start=$((0x$1)) size=$((0x$2)) found= expected=
while read -r offset info type value name rest; do
    at=$((0x$offset - start))
    if [ $at -ge 0 ] && [ $at -lt $size ]; then found="$found $at:$name"; fi
done <<EOF
$($readelf -rW "$lib" | grep -E '^[0-9a-f]+ ' | sort)
EOF
at=16
for s in $slots; do expected="$expected $at:$s"; at=$((at + 8)); done
if [ "$found" != "$expected" ] || [ $size -ne $at ]; then
    echo "vtable differs from the framework's slots:"; printf '%s\n' $found; exit 1
fi
# Tables and bindings stay internal.
if nm -DC "$lib" | grep -E 'sAppMetaTagMap|sFeatureMaskNames|sAdvancedFeatureConcurrency|gIQBMHandle'; then
    echo "internal tables are exported"; exit 1
fi
# Platform stand-ins are resolved from their own libraries, never defined here.
if nm -C --defined-only "$lib" | grep -E ' [TtWw] (ChiMetadata::|ExtensionModule::|sim::|kydebug::Log::|IBMIntf|allocate_camera_metadata|property_get|AddDebugDataReference|SubDebugDataReference)'; then
    echo "simulation code linked into the library"; exit 1
fi
echo "exports: $(printf '%s\n' "$exported" | wc -l) symbols, all of the record class"
