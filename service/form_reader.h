// SPDX-License-Identifier: MIT
// Reads multipart/form-data as clients really send it: parameter values quoted
// or not, blanks inside an unquoted file name, no blank after a semicolon.
// Beast has no form reader. This one splits a form as its bytes arrive, in
// pieces of any size: each part the reader is asked to keep goes to a file of
// its own (or, when small, to memory), and the rest is dropped. A file part
// is then stored by renaming its file, so an upload needs its size on disk
// once, and a form of any size is read in a few pages of memory.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace norva::service {

struct FormField {
    std::string name;
    std::string filename; // empty for a field without one
    bool hasFilename = false;
    std::uint64_t size = 0; // the content's, once the part has ended
};

// The boundary parameter of a Content-Type value; empty when there is none.
std::string formBoundary(const std::string& contentType);

// Which parts of a form to keep.
struct FormPlan {
    // The first `maxFiles` parts named `filePart` go to files of their own.
    std::string filePart;
    std::size_t maxFiles = 0;
    // The first part named `fieldPart` is kept in memory, up to `fieldLimit`
    // bytes; a larger one is marked `tooLarge` and its content dropped.
    std::string fieldPart;
    std::size_t fieldLimit = 0;
    // Every part in memory, whatever its name or size (forms already in memory).
    bool keepAll = false;
};

struct FormPart {
    FormField field;
    std::string content; // a part kept in memory
    std::string file;    // a part kept in a file; whoever takes it clears this
    bool tooLarge = false;
};

class FormSplitter
{
public:
    // Part files are made in `folder`.
    FormSplitter(std::string boundary, FormPlan plan, std::string folder = std::string());
    // Removes the part files nobody took.
    ~FormSplitter();
    FormSplitter(const FormSplitter&) = delete;
    FormSplitter& operator=(const FormSplitter&) = delete;

    // The next bytes of the form. False when a part file could not be written
    // (lastWriteFoundNoRoom() tells whether for want of room); what is
    // not a form makes it incomplete, not false.
    bool feed(const char* bytes, std::size_t size);
    // Whether the form came whole, up to its closing delimiter.
    bool complete() const { return state == State::Done; }
    // The parts kept, in form order; complete ones only.
    std::vector<FormPart>& parts() { return kept; }

private:
    enum class State { Preamble, AfterDelimiter, Head, Content, Done, Broken };

    bool startPart(const std::string& head);
    bool keep(const char* bytes, std::size_t size);
    bool endPart();

    const std::string delimiter;  // "--" boundary
    const std::string terminator; // CRLF "--" boundary: where a part's content ends
    const FormPlan plan;
    const std::string folder;
    State state;
    std::string pending; // bytes not yet placed
    std::vector<FormPart> kept;
    std::size_t files = 0;
    bool fieldKept = false;
    // The part now arriving: where its content goes.
    enum class Sink { Drop, Memory, File } sink = Sink::Drop;
    FormPart current;
    std::FILE* out = nullptr;
};

// Splits a whole form held in memory, keeping every part; false when it is not
// a complete form.
bool splitForm(const std::string& body, const std::string& boundary, std::vector<FormPart>& parts);

// Reads the name and file name from one Content-Disposition value.
void readDisposition(const std::string& value, FormField& field);

} // namespace norva::service
