// SPDX-License-Identifier: MIT
// A path as the library hands it to Qt's file classes.
#pragma once

#include <QString>

namespace norva::transfer {

// Qt reads a path that starts with ':' as one of its own resources, while the
// library's paths always name files: such a (relative) path gets an explicit
// "./" in front. Texts shown to the caller keep the path as given.
inline QString fileOnDisk(const QString& path)
{
    return path.startsWith(QLatin1Char(':')) ? QStringLiteral("./") + path : path;
}

} // namespace norva::transfer
