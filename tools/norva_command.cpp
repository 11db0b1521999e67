// SPDX-License-Identifier: MIT
// norva: calls any operation of the library by name from a shell.
//
//   norva [options] <operation> '<argument document>'
//   norva [options] <operation> -               (the document on standard input)
//   norva [options] <operation> key=value ...   (data.id=5 nests; JSON values are JSON)
//   norva --list | --help | --version | <operation> --help
//
// The result document is the library's own console line (indented instead with
// --pretty). The exit status says how the call ended (usage() lists them), and
// a call that got no reply says why on standard error.
#include "batch_run.h"
#include "command_document.h"
#include "command_line.h"
#include "exit_status.h"
#include "interrupt_to_cancel.h"
#include "operation_list.h"
#include "progress_line.h"
#include "session_file.h"
#include "trusted_certificates.h"

#include "norva_api_qt_progress.h"
#include "norva_api_qt_version.h"

#include <QFileInfo>
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
#include <vector>

using namespace norva::command;

namespace {

struct Options {
    bool pretty = false;
    bool noSession = false;
    bool save = false;
    bool help = false;
    bool list = false;
    bool version = false;
    bool force = false;    // send keys the operation does not read, and uploads of missing files
    bool verbose = false;  // -v: the heads of the exchange on standard error
    std::optional<int> jobs; // norva batch
    bool blocking = false; // norva batch, through the blocking functions
    std::optional<std::string> caCertificates; // --cacert
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
                 "       norva batch --blocking FILE|-              the same, one after another\n"
                 "       norva --version\n\n"
                 "Calls one operation of norva-api-qt and prints its result document. The\n"
                 "\"norva_sdk_\" or \"norva_tavlin_\" prefix may be left out. In key=value pairs a\n"
                 "value that is JSON (5, true, null, [1,2], {\"a\":1}, \"text\") is taken as JSON,\n"
                 "anything else as text, and data.id=5 puts \"id\" into the object \"data\".\n"
                 "A key the operation does not read is refused before anything is sent, and so\n"
                 "is an upload of a file or folder that is not there (--force sends them).\n\n"
                 "options (anywhere on the line; --opt=value works too; -- ends them):\n"
                 "  --save        with login: keep the address, token and user id in\n"
                 "                %s for later calls (logout forgets them)\n"
                 "  --no-session  use neither the saved session nor NORVA_IPCONFIG / NORVA_TOKEN /\n"
                 "                NORVA_CACERT\n"
                 "  --cacert FILE trust the PEM certificates in FILE beside the system's, for an\n"
                 "                https:// ipconfig (NORVA_CACERT does the same; --save keeps it)\n"
                 "  --pretty      print the result document indented\n"
                 "  --force       send keys the operation does not read, and missing upload files\n"
                 "  -v, --verbose print the request and reply heads on standard error (the token\n"
                 "                masked)\n"
                 "  --jobs N, --blocking   for batch, as above\n"
                 "  --version     print the version\n\n"
                 "Later calls fill \"ipconfig\" and \"token\" in when the document lacks them, from\n"
                 "NORVA_IPCONFIG and NORVA_TOKEN if set, else from the saved session, and the\n"
                 "saved user id where the operation names the calling user (norva OP --help).\n"
                 "login without password= asks for it on a terminal; password=- reads it from\n"
                 "standard input.\n"
                 "Uploads and downloads show their progress on a terminal; Ctrl-C cancels.\n"
                 "A batch line is {\"operation\":\"add2share\",\"argument\":{...}}; lines are read as\n"
                 "they come, and the results come one a line in the order of the input, the\n"
                 "count of those done on a terminal.\n\n"
                 "exit status:\n"
                 "  0    success: the result's status is 200 or 206\n"
                 "  1    the service answered, and the status is another\n"
                 "  2    a usage error\n"
                 "  3    no reply: unreachable, refused, TLS, or the idle limit (the cause goes\n"
                 "       to standard error)\n"
                 "  4    the token expired or was refused (402): log in again\n"
                 "  130  cancelled\n"
                 "  A batch exits 3 if any line got no reply, else 4 if any line's token was\n"
                 "  refused, else 1 if any other failed.\n\n"
                 "example: norva login ipconfig=127.0.0.1:8765 username=norva --save\n"
                 "         norva --cacert service.pem login ipconfig=https://board-host:8765 ... --save\n"
                 "         norva add2share boardid=4 sharewith_id=2 sharetype=1\n",
                 qPrintable(sessionFilePath()));
}

void operationHelp(const OperationEntry& entry)
{
    std::printf("%s: %s\nkeys: %s\n", entry.name, entry.summary, entry.keys);
    if (*entry.userKey)
        std::printf("the saved session fills in %s with the logged-in user's id\n", entry.userKey);
    std::printf("ipconfig and token may come from the saved session (see norva --help).\n");
}

bool isTransfer(const OperationEntry& entry)
{
    return std::strstr(entry.name, "upload") || std::strstr(entry.name, "download");
}

int fail(const std::string& message)
{
    std::fprintf(stderr, "norva: %s\n", message.c_str());
    return Usage;
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

// Reads the words: options anywhere (--opt=value too), the rest in order,
// everything after "--" as it is.
std::optional<std::string> readOptions(const std::vector<std::string>& arguments, Options& options,
                                       std::vector<std::string>& words)
{
    bool optionsEnded = false;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const std::string& argument = arguments[i];
        if (optionsEnded || argument.size() < 2 || argument[0] != '-') {
            words.push_back(argument);
            continue;
        }
        if (argument == "--") {
            optionsEnded = true;
            continue;
        }
        const std::size_t equals = argument.find('=');
        const std::string name = argument.substr(0, equals);
        std::optional<std::string> inlineValue;
        if (equals != std::string::npos)
            inlineValue = argument.substr(equals + 1);
        const auto value = [&]() -> std::optional<std::string> {
            if (inlineValue)
                return inlineValue;
            if (i + 1 < arguments.size())
                return arguments[++i];
            return std::nullopt;
        };
        const auto flag = [&](bool& option) -> std::optional<std::string> {
            if (inlineValue)
                return name + " takes no value";
            option = true;
            return std::nullopt;
        };
        std::optional<std::string> error;
        if (name == "--pretty")
            error = flag(options.pretty);
        else if (name == "--no-session")
            error = flag(options.noSession);
        else if (name == "--save")
            error = flag(options.save);
        else if (name == "--help" || name == "-h")
            error = flag(options.help);
        else if (name == "--list")
            error = flag(options.list);
        else if (name == "--version")
            error = flag(options.version);
        else if (name == "--force")
            error = flag(options.force);
        else if (name == "-v" || name == "--verbose")
            error = flag(options.verbose);
        else if (name == "--blocking")
            error = flag(options.blocking);
        else if (name == "--cacert") {
            options.caCertificates = value();
            if (!options.caCertificates || options.caCertificates->empty())
                return std::string("--cacert needs a FILE");
        } else if (name == "--jobs") {
            const std::optional<std::string> count = value();
            char* end = nullptr;
            const long jobs = count ? std::strtol(count->c_str(), &end, 10) : 0;
            if (!count || count->empty() || *end != '\0' || jobs < 1 || jobs > 1000)
                return "--jobs takes a whole number from 1 to 1000, not '" + count.value_or("") + "'";
            options.jobs = int(jobs);
        } else
            return "no option " + name + " (see norva --help)";
        if (error)
            return error;
    }
    return std::nullopt;
}

// The argument document the words give.
std::optional<std::string> documentOf(const std::vector<std::string>& rest, std::string& error)
{
    if (rest.size() == 1 && rest.front() == "-")
        return std::string(std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>());
    const std::size_t first = rest.size() == 1 ? rest.front().find_first_not_of(" \t\r\n") : std::string::npos;
    if (first != std::string::npos && rest.front()[first] == '{')
        return rest.front();
    return documentFromPairs(rest, &error);
}

// Keys the operation would drop without a word, and uploads of what is not
// there, are refused (unless --force): the library sends them all the same.
std::optional<std::string> refusedInput(const OperationEntry& entry, const QJsonObject& document)
{
    const std::vector<UnknownKey> unknown = unknownKeys(entry, document);
    if (!unknown.empty()) {
        std::string text = std::string(entry.name) + " does not read ";
        for (std::size_t i = 0; i < unknown.size(); ++i) {
            text += (i == 0 ? "the key " : ", nor ") + unknown[i].key;
            if (!unknown[i].nearest.empty())
                text += " (did you mean " + unknown[i].nearest + "?)";
        }
        return text + "\nits keys: " + entry.keys + "\n(--force sends the document all the same)";
    }
    const std::string name = entry.name;
    if (name.find("upload_file") == std::string::npos)
        return std::nullopt;
    const bool folder = name.find("upload_files") != std::string::npos;
    const QString path = document.value(QStringLiteral("file_uploadpath")).toString();
    const QFileInfo info(path);
    if (folder ? info.isDir() : info.isFile())
        return std::nullopt;
    return std::string("file_uploadpath=") + path.toStdString() + (folder ? " is no folder" : " is no file")
           + " (--force sends the upload all the same)";
}

// login: the password from a prompt without echo when none is given, or from
// standard input with password=-.
std::optional<std::string> withPassword(const std::string& document, std::string& error)
{
    QJsonObject arguments = QJsonDocument::fromJson(QByteArray::fromStdString(document)).object();
    const QJsonValue given = arguments.value(QStringLiteral("password"));
    if (given.isString() && given.toString() != QLatin1String("-"))
        return document;
    if (given.isUndefined() && !inputIsTerminal()) {
        error = "login needs password=, or password=- to read it from standard input";
        return std::nullopt;
    }
    const std::optional<std::string> password = readSecret(inputIsTerminal() ? "password: " : "");
    if (!password) {
        error = "no password came on standard input";
        return std::nullopt;
    }
    arguments.insert(QStringLiteral("password"), QString::fromStdString(*password));
    return QJsonDocument(arguments).toJson(QJsonDocument::Compact).toStdString();
}

// -v: the heads, as curl -v shows them, the token masked.
void showHeads(const std::string& head, bool isRequest)
{
    const char mark = isRequest ? '>' : '<';
    std::size_t start = 0;
    for (std::size_t end; (end = head.find("\r\n", start)) != std::string::npos; start = end + 2) {
        std::string line = head.substr(start, end - start);
        if (QByteArray::fromStdString(line).toLower().startsWith("token:"))
            line = line.substr(0, 6) + " ***";
        std::fprintf(stderr, "%c %s\n", mark, line.c_str());
    }
}

} // namespace

int main(int argc, char** argv)
{
    Options options;
    std::vector<std::string> words;
    if (const std::optional<std::string> error = readOptions(utf8Arguments(argc, argv), options, words))
        return fail(*error);
    if (options.version) {
        std::printf("norva %s (norva-api-qt %s, Qt %s)\n", NORVA_API_QT_VERSION_STR, NORVA::NORVA_API_QT::libraryVersion(),
                    qVersion());
        return Success;
    }
    if (options.list) {
        for (const OperationEntry* entry = operationsBegin(); entry != operationsEnd(); ++entry)
            std::printf("%-42s %s\n", entry->name, entry->summary);
        return Success;
    }
    if (words.empty()) {
        usage(options.help ? stdout : stderr);
        return options.help ? Success : Usage;
    }
    const bool batch = words.front() == "batch";
    if (!batch && (options.jobs || options.blocking))
        return fail(std::string(options.jobs ? "--jobs" : "--blocking") + " goes with batch");
    const OperationEntry* const entry = batch ? nullptr : findOperation(words.front());
    if (!batch && !entry)
        return fail("no operation named " + words.front() + " (see norva --list)");
    if (entry && options.help) {
        operationHelp(*entry);
        return Success;
    }
    const bool login = entry && std::strcmp(entry->name, "norva_sdk_login") == 0;
    const bool logout = entry && std::strcmp(entry->name, "norva_sdk_logout") == 0;
    if (options.save && !login)
        return fail("--save goes with login");

    // Certificates to trust go in before any call: --cacert, else NORVA_CACERT
    // or the saved session's. A saved one that is gone says so, and does not
    // stand in the way of ending the session.
    QString caCertificates = QString::fromStdString(options.caCertificates.value_or(std::string()));
    const bool fromSessionFile = caCertificates.isEmpty() && !options.noSession && !qEnvironmentVariableIsSet("NORVA_CACERT");
    if (caCertificates.isEmpty() && !options.noSession)
        caCertificates = currentSession().caCertificates;
    if (!caCertificates.isEmpty()) {
        QString error;
        if (!trustCertificates(caCertificates, error)) {
            if (!fromSessionFile)
                return fail(error.toStdString());
            std::fprintf(stderr, "norva: the saved session (%s) trusts %s: %s; log in again with --cacert FILE --save, "
                                 "or leave the session out with --no-session\n",
                         qPrintable(sessionFilePath()), qPrintable(caCertificates), qPrintable(error));
            if (!logout)
                return Usage;
        }
    }
    if (batch) {
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
        return runBatch(words[1] == "-" ? std::cin : file, options.jobs.value_or(6), session, options.blocking);
    }

    std::string error;
    std::optional<std::string> document = documentOf({words.begin() + 1, words.end()}, error);
    if (document && login)
        document = withPassword(*document, error);
    if (!document)
        return fail(error);
    const QJsonDocument parsed = QJsonDocument::fromJson(QByteArray::fromStdString(*document));
    if (!options.force && parsed.isObject()) {
        if (const std::optional<std::string> refused = refusedInput(*entry, parsed.object()))
            return fail(*refused);
    }
    if (!options.noSession)
        *document = withSession(*document, currentSession(), entry->userKey);

    std::unique_ptr<ProgressLine> progress;
    if (isTransfer(*entry) && errorIsTerminal()) {
        progress = std::make_unique<ProgressLine>(stderr);
        NORVA::NORVA_API_QT::setProgressObserver(
            [&progress](const NORVA::NORVA_API_QT::CallProgress& figures) { progress->show(figures); });
    }
    if (options.verbose)
        NORVA::NORVA_API_QT::setHeadObserver(showHeads);
    std::string result;
    {
        const InterruptToCancel interrupts;
        std::optional<HeldConsole> console;
        if (options.pretty || progress)
            console.emplace();
        result = entry->function(*document);
        NORVA::NORVA_API_QT::clearProgressObserver();
        NORVA::NORVA_API_QT::clearHeadObserver();
        progress.reset();
        if (console)
            console->release(result, options.pretty);
    }
    if (InterruptToCancel::interrupted())
        return Cancelled;

    const QJsonObject resultDocument = QJsonDocument::fromJson(QByteArray::fromStdString(result)).object();
    if (login && options.save)
        keepSession(*document, resultDocument, caCertificates);
    if (logout && !options.noSession && removeSession())
        std::fprintf(stderr, "norva: saved session removed\n");
    return exitStatus(resultDocument, NORVA::NORVA_API_QT::lastCallFailure(), NORVA::NORVA_API_QT::lastCallFailureText());
}
