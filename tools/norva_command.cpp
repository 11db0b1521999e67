// norva: calls any operation of the library by name from a shell.
//
//   norva [options] <operation> '<argument document>'
//   norva [options] <operation> -               (the document on standard input)
//   norva [options] <operation> key=value ...   (data.id=5 nests; JSON values are JSON)
//   norva --list | --help | <operation> --help
//
// The result document is the library's own console line (indented instead with
// --pretty). Exit status 0 when its "status" is 200 or 206, 1 otherwise, 2 for
// a usage error, 130 when Ctrl-C cancelled the call.
#include "batch_run.h"
#include "command_document.h"
#include "command_line.h"
#include "interrupt_to_cancel.h"
#include "operation_list.h"
#include "progress_line.h"
#include "session_file.h"
#include "trusted_certificates.h"

#include "norva_api_qt_progress.h"

#include <QJsonDocument>
#include <QJsonObject>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

using namespace norva::command;

namespace {

struct Options {
    bool pretty = false;
    bool noSession = false;
    bool save = false;
    bool help = false;
    bool list = false;
    int jobs = 6;          // norva batch
    bool blocking = false; // norva batch, through the blocking functions
    std::string caCertificates; // --cacert
};

void usage(std::FILE* to)
{
    std::fprintf(to,
                 "usage: norva [options] <operation> '<argument document>'\n"
                 "       norva [options] <operation> -              the document on standard input\n"
                 "       norva [options] <operation> key=value ...  the document as pairs\n"
                 "       norva --list                               the operations\n"
                 "       norva <operation> --help                   the keys of one operation\n"
                 "       norva batch [--jobs N] FILE|-              one call a line, N at once (6)\n"
                 "       norva batch --blocking FILE|-              the same, one after another\n\n"
                 "Calls one operation of norva-api-qt and prints its result document. The\n"
                 "\"norva_sdk_\" or \"norva_tavlin_\" prefix may be left out. In key=value pairs a\n"
                 "value that is JSON (5, true, null, [1,2], {\"a\":1}, \"text\") is taken as JSON,\n"
                 "anything else as text, and data.id=5 puts \"id\" into the object \"data\".\n\n"
                 "options:\n"
                 "  --save        with login: keep the address and token in %s\n"
                 "                for later calls (logout forgets them)\n"
                 "  --no-session  use neither the saved session nor NORVA_IPCONFIG / NORVA_TOKEN /\n"
                 "                NORVA_CACERT\n"
                 "  --cacert FILE trust the PEM certificates in FILE beside the system's, for an\n"
                 "                https:// ipconfig (NORVA_CACERT does the same; --save keeps it)\n"
                 "  --pretty      print the result document indented\n\n"
                 "Later calls fill \"ipconfig\" and \"token\" in when the document lacks them, from\n"
                 "NORVA_IPCONFIG and NORVA_TOKEN if set, else from the saved session.\n"
                 "Uploads and downloads show their progress on a terminal; Ctrl-C cancels.\n"
                 "A batch line is {\"operation\":\"add2share\",\"argument\":{...}}; the results come\n"
                 "one a line in the order of the input, the count of those done on a terminal.\n"
                 "Exit status: 0 when the result's status (every one, for a batch) is 200 or\n"
                 "206, 1 otherwise, 2 for a\n"
                 "usage error, 130 when cancelled.\n\n"
                 "example: norva login ipconfig=127.0.0.1:8765 username=norva password=norva --save\n"
                 "         norva --cacert service.pem login ipconfig=https://board-host:8765 ... --save\n"
                 "         norva add2share boardid=4 sharewith_id=2 sharetype=1\n",
                 qPrintable(sessionFilePath()));
}

void operationHelp(const OperationEntry& entry)
{
    std::printf("%s: %s\nkeys: %s\n", entry.name, entry.summary, entry.keys);
    std::printf("ipconfig and token may come from the saved session (see norva --help).\n");
}

bool isTransfer(const OperationEntry& entry)
{
    return std::strstr(entry.name, "upload") || std::strstr(entry.name, "download");
}

int fail(const std::string& message)
{
    std::fprintf(stderr, "norva: %s\n", message.c_str());
    return 2;
}

// Status 200 or 206 is success; the result is the library's own document.
bool succeeded(const QJsonObject& result)
{
    const int status = result.value(QStringLiteral("status")).toInt();
    return status == 200 || status == 206;
}

void keepSession(const std::string& document, const QJsonObject& result, const QString& caCertificates)
{
    const QJsonObject data = result.value(QStringLiteral("data")).toObject();
    Session session;
    session.ipconfig = QJsonDocument::fromJson(QByteArray::fromStdString(document))
                           .object().value(QStringLiteral("ipconfig")).toString();
    session.token = data.value(QStringLiteral("token")).toString();
    session.userId = data.value(QStringLiteral("userId"));
    session.caCertificates = caCertificates;
    QString error;
    if (!succeeded(result) || session.token.isEmpty())
        std::fprintf(stderr, "norva: the session is not saved: the login did not succeed\n");
    else if (saveSession(session, &error))
        std::fprintf(stderr, "norva: session saved in %s\n", qPrintable(sessionFilePath()));
    else
        std::fprintf(stderr, "norva: the session is not saved: %s\n", qPrintable(error));
}

// Holds back what the library writes to standard output while it lives, so
// that a progress line can be wiped first and the result line can be
// indented (--pretty).
class HeldConsole
{
public:
    HeldConsole() : console(std::cout.rdbuf(held.rdbuf())) {}
    ~HeldConsole() { std::cout.rdbuf(console); }
    HeldConsole(const HeldConsole&) = delete;
    HeldConsole& operator=(const HeldConsole&) = delete;

    // Writes what was held, the result line indented when asked to.
    void release(const std::string& result, bool pretty)
    {
        std::cout.rdbuf(console);
        std::string lines = held.str();
        const std::string resultLine = result + '\n';
        if (pretty && lines.size() >= resultLine.size()
            && lines.compare(lines.size() - resultLine.size(), resultLine.size(), resultLine) == 0)
            lines.replace(lines.size() - resultLine.size(), resultLine.size(), indented(result) + '\n');
        std::cout << lines << std::flush;
    }

private:
    std::ostringstream held;
    std::streambuf* const console;
};

} // namespace

int main(int argc, char** argv)
{
    Options options;
    std::vector<std::string> words;
    const std::vector<std::string> arguments = utf8Arguments(argc, argv);
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const std::string& word = arguments[i];
        if (word == "--pretty")
            options.pretty = true;
        else if (word == "--no-session")
            options.noSession = true;
        else if (word == "--save")
            options.save = true;
        else if (word == "--help" || word == "-h")
            options.help = true;
        else if (word == "--list" && i == 0)
            options.list = true;
        else if (word == "--blocking")
            options.blocking = true;
        else if (word == "--cacert" && i + 1 < arguments.size())
            options.caCertificates = arguments[++i];
        else if (word == "--jobs" && i + 1 < arguments.size()) {
            const std::string& count = arguments[++i];
            char* end = nullptr;
            const long jobs = std::strtol(count.c_str(), &end, 10);
            if (count.empty() || *end != '\0' || jobs < 1 || jobs > 1000)
                return fail("--jobs takes a whole number from 1 to 1000, not '" + count + "'");
            options.jobs = int(jobs);
        }
        else if (word.size() > 1 && word[0] == '-' && word[1] == '-')
            return fail("no option " + word + " (see norva --help)");
        else
            words.push_back(word);
    }
    if (options.list) {
        for (const OperationEntry* entry = operationsBegin(); entry != operationsEnd(); ++entry)
            std::printf("%-42s %s\n", entry->name, entry->summary);
        return 0;
    }
    if (words.empty()) {
        usage(options.help ? stdout : stderr);
        return options.help ? 0 : 2;
    }
    // Certificates to trust go in before any call: --cacert, else NORVA_CACERT
    // or the saved session's.
    QString caCertificates = QString::fromStdString(options.caCertificates);
    if (caCertificates.isEmpty() && !options.noSession)
        caCertificates = currentSession().caCertificates;
    if (!caCertificates.isEmpty()) {
        QString error;
        if (!trustCertificates(caCertificates, error))
            return fail(error.toStdString());
    }
    if (words.front() == "batch") {
        if (words.size() != 2)
            return fail("batch takes one FILE, or - for standard input");
        std::ifstream file;
        if (words[1] != "-") {
            file.open(words[1]);
            if (!file)
                return fail("cannot read " + words[1]);
        }
        std::optional<Session> session;
        if (!options.noSession)
            session = currentSession();
        return runBatch(words[1] == "-" ? std::cin : file, options.jobs, session, options.blocking);
    }
    const OperationEntry* const entry = findOperation(words.front());
    if (!entry)
        return fail("no operation named " + words.front() + " (see norva --list)");
    if (options.help) {
        operationHelp(*entry);
        return 0;
    }
    const bool login = std::strcmp(entry->name, "norva_sdk_login") == 0;
    const bool logout = std::strcmp(entry->name, "norva_sdk_logout") == 0;
    if (options.save && !login)
        return fail("--save goes with login");

    const std::vector<std::string> rest(words.begin() + 1, words.end());
    std::string document;
    if (rest.size() == 1 && rest.front() == "-") {
        document.assign(std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>());
    } else if (rest.size() == 1 && rest.front().find_first_not_of(" \t\r\n") != std::string::npos
               && rest.front()[rest.front().find_first_not_of(" \t\r\n")] == '{') {
        document = rest.front();
    } else {
        std::string error;
        const std::optional<std::string> pairs = documentFromPairs(rest, &error);
        if (!pairs)
            return fail(error);
        document = *pairs;
    }
    if (!options.noSession)
        document = withSession(document, currentSession(), logout);

    std::unique_ptr<ProgressLine> progress;
    if (isTransfer(*entry) && isatty(fileno(stderr))) {
        progress = std::make_unique<ProgressLine>(stderr);
        NORVA::NORVA_API_QT::setProgressObserver(
            [&progress](const NORVA::NORVA_API_QT::CallProgress& figures) { progress->show(figures); });
    }
    std::string result;
    {
        const InterruptToCancel interrupts;
        std::optional<HeldConsole> console;
        if (options.pretty || progress)
            console.emplace();
        result = entry->function(document);
        NORVA::NORVA_API_QT::clearProgressObserver();
        progress.reset();
        if (console)
            console->release(result, options.pretty);
    }
    if (InterruptToCancel::interrupted())
        return 130;

    const QJsonObject resultDocument = QJsonDocument::fromJson(QByteArray::fromStdString(result)).object();
    if (login && options.save)
        keepSession(document, resultDocument, caCertificates);
    if (logout && !options.noSession && removeSession())
        std::fprintf(stderr, "norva: saved session removed\n");
    return succeeded(resultDocument) ? 0 : 1;
}
