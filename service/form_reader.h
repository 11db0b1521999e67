// Reads multipart/form-data as clients really send it: parameter values quoted
// or not, blanks inside an unquoted file name, no blank after a semicolon.
#pragma once

#include <string>
#include <vector>

namespace norva::service {

struct FormField {
    std::string name;
    std::string filename; // empty for a field without one
    bool hasFilename = false;
    std::string body;
};

// The boundary parameter of a Content-Type value; empty when there is none.
std::string formBoundary(const std::string& contentType);

// Splits `body` into its fields. false when it is not a complete form.
bool readForm(const std::string& body, const std::string& boundary, std::vector<FormField>& fields);

// Reads the name and file name from one Content-Disposition value.
void readDisposition(const std::string& value, FormField& field);

} // namespace norva::service
