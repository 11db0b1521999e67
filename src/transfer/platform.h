// SPDX-License-Identifier: MIT
// What the file transfer needs from the platform: the path separator, the
// folder listing, and narrow text in the system's encoding as UTF-8.
#pragma once

#include <QChar>
#include <QString>

#include <string>
#include <vector>

namespace norva::transfer {

// Joins a folder and a name, by plain concatenation, in uploads and downloads:
// '/' on POSIX systems, a backslash on Windows.
extern const char pathSeparator;

// The characters by which a name would reach beyond its folder: the path
// separators the system reads ("/"; on Windows also the backslash and ":",
// which names a drive or a file's stream).
extern const char* const pathBreakingCharacters;

// A file that the folder scan found, as folder + separator + name, spelled
// twice: as narrow text of the system's encoding (on Windows its code page,
// where a character the code page can't spell becomes "?"), which is what the
// system shows, and as UTF-8 made from the system's own name, which opens the
// file whatever the code page can spell.
struct FoundFile {
    std::string narrow;
    std::string utf8;
};

// Appends each file directly in `folder` (UTF-8), in the order the system
// lists them: hidden (and on Windows system) files included, sub-folders and
// "." and ".." skipped, nothing sorted. A folder that can't be read adds
// nothing.
void scan_folder_files(const std::string& folder, std::vector<FoundFile>& files);

// Narrow text of the system's encoding, as UTF-8. Where narrow text already is
// UTF-8 (Linux), this is the text itself.
std::string local_to_utf8(const std::string& text);

// Puts the file `from` in the place of `to`, replacing a file of that name in one
// step; both lie in one folder. False when the system refuses.
bool replace_file(const QString& from, const QString& to);

} // namespace norva::transfer
