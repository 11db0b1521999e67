// SPDX-License-Identifier: MIT
#include "transfer/platform.h"

#include <io.h>
#include <windows.h>

namespace norva::transfer {

const char pathSeparator = '\\';
const char* const pathBreakingCharacters = "\\/:";

namespace {

// Narrow text of `codePage` as UTF-16; the two-call form asks for the length
// first.
std::wstring widen(const std::string& text, UINT codePage)
{
    if (text.empty())
        return std::wstring();
    const int length = MultiByteToWideChar(codePage, 0, text.data(), int(text.size()), nullptr, 0);
    std::wstring wide(std::size_t(length > 0 ? length : 0), L'\0');
    if (length > 0)
        MultiByteToWideChar(codePage, 0, text.data(), int(text.size()), wide.data(), length);
    return wide;
}

std::string narrow(const std::wstring& text, UINT codePage)
{
    if (text.empty())
        return std::string();
    const int length = WideCharToMultiByte(codePage, 0, text.data(), int(text.size()), nullptr, 0, nullptr, nullptr);
    std::string bytes(std::size_t(length > 0 ? length : 0), '\0');
    if (length > 0)
        WideCharToMultiByte(codePage, 0, text.data(), int(text.size()), bytes.data(), length, nullptr, nullptr);
    return bytes;
}

class FindHandle
{
public:
    explicit FindHandle(intptr_t handle) : handle(handle) {}
    ~FindHandle()
    {
        if (handle != -1)
            _findclose(handle);
    }
    FindHandle(const FindHandle&) = delete;
    FindHandle& operator=(const FindHandle&) = delete;
    bool valid() const { return handle != -1; }
    intptr_t get() const { return handle; }

private:
    const intptr_t handle;
};

} // namespace

// The folder arrives as UTF-8, which the narrow search would read in the code
// page: the wide member of the same family finds a folder of any name. Each
// path is then shown in the code page, as all narrow text on Windows, and
// opened by its wide name (as UTF-8), which the code page may not spell.
void scan_folder_files(const std::string& folder, std::vector<FoundFile>& files)
{
    const std::wstring wideFolder = widen(folder, CP_UTF8);
    _wfinddata64i32_t entry;
    const FindHandle search(_wfindfirst64i32((wideFolder + L"\\*").c_str(), &entry));
    if (!search.valid())
        return;
    do {
        if (!(entry.attrib & _A_SUBDIR)) {
            const std::wstring path = wideFolder + L'\\' + entry.name;
            files.push_back({narrow(path, CP_ACP), narrow(path, CP_UTF8)});
        }
    } while (_wfindnext64i32(search.get(), &entry) == 0);
}

std::string local_to_utf8(const std::string& text)
{
    return narrow(widen(text, CP_ACP), CP_UTF8);
}

bool replace_file(const QString& from, const QString& to)
{
    return MoveFileExW(reinterpret_cast<const wchar_t*>(from.utf16()), reinterpret_cast<const wchar_t*>(to.utf16()),
                       MOVEFILE_REPLACE_EXISTING)
           != 0;
}

} // namespace norva::transfer
