#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# The shared library exports the 42 operations, the class and the progress
# extension, and nothing of its internals.
set -euo pipefail
library="$1"
# --instrumented: a sanitizer or fuzz build, whose instrumentation adds and
# drops symbols of its own; only the library's own exports are checked there.
instrumented=${2:-}
case "$library" in
  *.dll) # the export table of a Windows DLL
    symbols=$(x86_64-w64-mingw32-objdump -p "$library" | sed -n '/\[Ordinal\/Name Pointer\] Table/,/^$/p' \
              | awk '{print $NF}' | x86_64-w64-mingw32-c++filt) ;;
  *) symbols=$(nm -D --defined-only -C "$library") ;;
esac

operations=$(grep -cE 'NORVA::(NORVA_API_QT|TAVLIN_KVRAPI_QT)::norva_(sdk|tavlin)_[a-z0-9_]+\(std::' <<<"$symbols" || true)
if [ "$operations" -ne 42 ]; then
  echo "expected 42 exported operations, found $operations"; exit 1
fi
for member in 'NORVA_HTTP_API::norva_sdk_login(' 'NORVA_HTTP_API::norva_sdk_download_binary_file(' \
              'NORVA_HTTP_API::requestFinished(QNetworkReply\*)' 'NORVA_HTTP_API::staticMetaObject' \
              'NORVA_HTTP_API::qt_metacast(' 'NORVA_HTTP_API::NORVA_HTTP_API(QObject\*)' \
              'NORVA_API_QT::setProgressObserver(' 'NORVA_API_QT::clearProgressObserver()' \
              'NORVA_API_QT::cancelCall()' 'NORVA_API_QT::setIdleLimit(int)' 'NORVA_API_QT::idleLimit()' \
              'NORVA_API_QT::lastCallFailure()' 'NORVA_API_QT::lastCallFailureText' 'NORVA_API_QT::setHeadObserver(' \
              'NORVA_API_QT::clearHeadObserver()' 'NORVA_API_QT::libraryVersion()'; do
  grep -q "$member" <<<"$symbols" || { echo "missing export: $member"; exit 1; }
done
if grep -E '(^| )(norva|testing_support)::' <<<"$symbols"; then
  echo "internal symbols are exported"; exit 1
fi
# On ELF, nothing but the library's own names: no Boost, no standard library code.
if [[ $library != *.dll && $instrumented != --instrumented ]]; then
  # The classes' type information and vtables too: a host's dynamic_cast, typeid
  # or UndefinedBehaviorSanitizer's vptr check needs them.
  for name in 'typeinfo for NORVA::NORVA_API_QT::NORVA_HTTP_API' 'vtable for NORVA::NORVA_API_QT::CallReply'; do
    nm -D --defined-only -C "$library" | grep -q "$name" || { echo "missing export: $name"; exit 1; }
  done
  foreign=$(nm -D --defined-only -C "$library" | cut -d' ' -f3- | grep -vE '^((vtable|typeinfo|typeinfo name) for )?NORVA::' || true)
  [ -z "$foreign" ] || { echo "names not of the library's own are exported:"; head <<<"$foreign"; exit 1; }
fi
echo "exports: 42 operations, NORVA_HTTP_API, the progress extension and the version, nothing else"
