// What the file transfer needs from the platform: the path separator, the
// folder listing, and narrow text in the system's encoding as UTF-8.
#pragma once

#include <QChar>
#include <QString>

#include <string>
#include <vector>

namespace norva::transfer {

// Joins a folder and a name, by plain concatenation, in uploads and downloads.
inline constexpr char pathSeparator = '/';

// Appends folder + separator + name for each file directly in `folder`, in the
// order the system lists them: hidden files included, sub-folders and "." and
// ".." skipped, nothing sorted. A folder that can't be read adds nothing.
void scan_folder_files(const std::string& folder, std::vector<std::string>& files);

// Narrow text of the system's encoding, as UTF-8. Where narrow text already is
// UTF-8 (Linux), this is the text itself.
std::string local_to_utf8(const std::string& text);

// Puts the file `from` in the place of `to`, replacing a file of that name in one
// step; both lie in one folder. False when the system refuses.
bool replace_file(const QString& from, const QString& to);

} // namespace norva::transfer
