// SPDX-License-Identifier: MIT
#include "norva_api_qt_version.h"

const char* NORVA::NORVA_API_QT::libraryVersion()
{
    return NORVA_API_QT_VERSION_STR;
}
