// SPDX-License-Identifier: MIT
#include "transfer/platform.h"

#include <QFile>

#include <cstdio>
#include <dirent.h>
#include <sys/stat.h>

#include <memory>

namespace norva::transfer {

const char pathSeparator = '/';
const char* const pathBreakingCharacters = "/";

namespace {

struct DirCloser {
    void operator()(DIR* dir) const { closedir(dir); }
};

bool isFolder(const std::string& path, const dirent& entry)
{
    if (entry.d_type == DT_DIR)
        return true;
    if (entry.d_type != DT_UNKNOWN && entry.d_type != DT_LNK)
        return false;
    // The file system did not say, or it is a link: ask for what it names.
    struct stat info;
    return ::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

} // namespace

void scan_folder_files(const std::string& folder, std::vector<FoundFile>& files)
{
    const std::unique_ptr<DIR, DirCloser> dir(::opendir(folder.c_str()));
    if (!dir)
        return;
    while (const dirent* entry = ::readdir(dir.get())) {
        const std::string path = folder + pathSeparator + entry->d_name;
        if (!isFolder(path, *entry))
            files.push_back({path, local_to_utf8(path)});
    }
}

std::string local_to_utf8(const std::string& text)
{
    return text;
}

bool replace_file(const QString& from, const QString& to)
{
    return std::rename(QFile::encodeName(from).constData(), QFile::encodeName(to).constData()) == 0;
}

} // namespace norva::transfer
