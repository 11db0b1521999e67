// Reads multipart/form-data as clients really send it: parameter values quoted
// or not, blanks inside an unquoted file name, no blank after a semicolon.
// Beast has no form reader. This one reads from a stream (the spooled body)
// and notes where each part lies instead of copying it, so a form of any size
// is read in a window of a few pages.
#pragma once

#include <cstdint>
#include <istream>
#include <ostream>
#include <string>
#include <vector>

namespace norva::service {

struct FormField {
    std::string name;
    std::string filename; // empty for a field without one
    bool hasFilename = false;
    std::uint64_t offset = 0; // where the part's content starts in the form
    std::uint64_t size = 0;
};

// The boundary parameter of a Content-Type value; empty when there is none.
std::string formBoundary(const std::string& contentType);

// Finds the fields of the form in `body`. false when it is not a complete form.
bool readForm(std::istream& body, const std::string& boundary, std::vector<FormField>& fields);

// A field's content, when it is at most `limit` bytes; false otherwise.
bool readPart(std::istream& body, const FormField& field, std::string& content, std::uint64_t limit);
// Copies a field's content to `out`, a window at a time.
bool copyPart(std::istream& body, const FormField& field, std::ostream& out);

// Reads the name and file name from one Content-Disposition value.
void readDisposition(const std::string& value, FormField& field);

} // namespace norva::service
