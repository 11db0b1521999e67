// SPDX-License-Identifier: MIT
// Qt 5 has no QPromise: its client offers no futures (see norva_api_qt_async.h).
