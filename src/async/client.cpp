// SPDX-License-Identifier: MIT
// The asynchronous face: an operation's own function runs up to its exchange
// (deferred_call.h), the exchange runs on the client's kept connections (or its
// manager, exchange.h), and the reply goes back to the operation's judge. No
// event loop is run here.
#include "norva_api_qt_async.h"

#include "async/operation_names.h"
#include "frame/connection_pool.h"
#include "frame/deferred_call.h"
#include "frame/exchange.h"
#include "frame/failure.h"
#include "frame/progress_pacer.h"
#include "frame/result.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QMetaMethod>
#include <QNetworkAccessManager>
#include <QNetworkCookie>
#include <QNetworkCookieJar>
#include <QPointer>
#include <QThread>
#include <QTimer>

#include <algorithm>
#include <deque>
#include <functional>
#include <optional>
#include <vector>

namespace NORVA::NORVA_API_QT {

using namespace norva;

namespace {

// A client's later calls send what a blocking call sends, and a blocking call
// has a manager of its own, so it never sends back a cookie the service set.
class KeepNoCookies final : public QNetworkCookieJar
{
public:
    QList<QNetworkCookie> cookiesForUrl(const QUrl&) const override { return {}; }
    bool setCookiesFromUrl(const QList<QNetworkCookie>&, const QUrl&) override { return false; }
};

// Runs the client's sweep from a posted event of low priority, so that the
// events posted beside it run first. Among them is the queued start of the
// request a host made in its finished() slot (Qt starts a request from the
// event loop): the sweep runs while that request is on its way, not before it.
// The dispatcher's aboutToBlock would not do: it comes at the start of every
// pass of the loop, before the events that wait in it.
class Sweeper final : public QObject
{
public:
    explicit Sweeper(std::function<void()> sweep) : sweep(std::move(sweep)) {}
    void post()
    {
        if (posted)
            return;
        posted = true;
        QCoreApplication::postEvent(this, new QEvent(QEvent::User), Qt::LowEventPriority);
    }
    bool event(QEvent* e) override
    {
        if (e->type() != QEvent::User)
            return QObject::event(e);
        posted = false;
        sweep();
        return true;
    }

private:
    const std::function<void()> sweep;
    bool posted = false;
};

} // namespace

struct CallReply::State {
    QPointer<Client> client;
    const char* operation = "";
    std::unique_ptr<DeferredCall> deferred = std::make_unique<DeferredCall>();
    std::unique_ptr<ExchangeInFlight> exchange;
    // The call's own manager, when its address carries credentials (start()).
    QNetworkAccessManager* ownManager = nullptr;
    // In flight: the last progress either way, and the limit on silence.
    QElapsedTimer sinceProgress;
    int idleLimitMs = 0;
    bool idlePassed = false;
    std::optional<ProgressPacer> pacer;
    std::string result;
    FailureReport failure;
    bool finished = false;
    bool cancelled = false;
    bool progressHeard = false; // somebody connected to progress()
};

struct Client::Private {
    // Calls go on connections of the library's own, kept here; the manager
    // carries what only it can (exchange.h).
    ConnectionPool connections;
    QNetworkAccessManager manager;
    RequestCache requests;
    // One timer for the idle limits of all calls in flight: it fires when the
    // first of them could have passed its limit, looks at each, and waits on
    // for what is left (a timer of each call's own cost more than the rest of
    // the call's bookkeeping together).
    QTimer idleWatch;
    // A reply leaves these before it is deleted (CallDriver::release).
    std::deque<CallReply*> waiting;
    std::vector<CallReply*> inFlight;
    // What finished calls left, in the order it must go (release()).
    struct Leftover {
        std::unique_ptr<DeferredCall> call; // what the exchange sent: goes after it
        std::unique_ptr<ExchangeInFlight> exchange;
    };
    std::vector<Leftover> leftovers;
    Sweeper* sweeper = nullptr; // the client's child
    int idleLimitMs = 120 * 1000;
    int idleWatchStartedWithMs = 0; // the limit the idle watch was last started for
    int maxInFlight = 6;
};

struct CallDriver {
    // A reply whose result is known at once and which sends nothing. It lives
    // on the calling thread and is tied to no client: the caller may be on
    // another thread than the client's, and then the reply's finished() comes
    // from the caller's own loop, however late it connects, and deleting the
    // reply there touches nothing of the client.
    static CallReply* refused(std::string result, FailureReport failure)
    {
        CallReply* const reply = new CallReply(std::make_unique<CallReply::State>());
        reply->d->failure = std::move(failure);
        finishSoon(reply, std::move(result));
        return reply;
    }

    // Delivers `result` once call() has returned, from the reply's thread.
    static void finishSoon(CallReply* reply, std::string result)
    {
        reply->d->result = std::move(result);
        QMetaObject::invokeMethod(
            reply,
            [reply] {
                if (reply->d->finished) // cancelled meanwhile: it said so then
                    return;
                reply->d->finished = true;
                emit reply->finished();
            },
            Qt::QueuedConnection);
    }

    static void pump(Client& client)
    {
        Client::Private& c = *client.d;
        while (int(c.inFlight.size()) < c.maxInFlight && !c.waiting.empty()) {
            CallReply* const next = c.waiting.front();
            c.waiting.pop_front();
            start(client, next);
        }
    }

    static void start(Client& client, CallReply* reply)
    {
        CallReply::State& s = *reply->d;
        client.d->inFlight.push_back(reply);
        OutgoingRequest& outgoing = s.deferred->outgoing();
        // Once a challenge was answered with an address's credentials, Qt's
        // manager sends them with its later requests unasked; a blocking call,
        // on a manager of its own, waits for the challenge. Such a call gets a
        // manager of its own here too.
        QNetworkAccessManager* manager = &client.d->manager;
        if (!outgoing.request.url().userInfo().isEmpty())
            manager = s.ownManager = new QNetworkAccessManager;
        s.exchange = makeExchange(outgoing, manager, &client.d->connections);
        ExchangeInFlight& exchange = *s.exchange;
        s.idleLimitMs = client.d->idleLimitMs;
        s.sinceProgress.start();
        // The watch fires no later than a call of the same limit needs it to.
        QTimer& watch = client.d->idleWatch;
        if (!watch.isActive()
            || (s.idleLimitMs < client.d->idleWatchStartedWithMs && watch.remainingTime() > s.idleLimitMs)) {
            watch.start(s.idleLimitMs);
            client.d->idleWatchStartedWithMs = s.idleLimitMs;
        }
        exchange.onActivity = [&s] { s.sinceProgress.restart(); };
        exchange.onSent = [reply](qint64 done, qint64 total) {
            if (ProgressPacer* pacer = pacerOf(reply))
                pacer->sent(done, total);
        };
        exchange.onReceived = [reply](qint64 done, qint64 announced) {
            if (ProgressPacer* pacer = pacerOf(reply))
                pacer->received(done, announced);
        };
        // From the event loop (an exchange ends in its own signal, or in an
        // abort), never inside call(); the exchange itself goes later.
        exchange.onFinished = [reply] { complete(reply); };
        exchange.start();
    }

    // Ends the calls in flight that were silent for their whole idle limit,
    // and waits for the next one that could be.
    static void watchIdle(Client& client)
    {
        Client::Private& c = *client.d;
        std::vector<QPointer<CallReply>> silent;
        qint64 next = -1;
        for (CallReply* reply : c.inFlight) {
            const CallReply::State& s = *reply->d;
            const qint64 left = s.idleLimitMs - s.sinceProgress.elapsed();
            if (left <= 0)
                silent.push_back(reply);
            else if (next < 0 || left < next)
                next = left;
        }
        if (next > 0) {
            c.idleWatch.start(int(next));
            c.idleWatchStartedWithMs = int(next);
        }
        // Each ends at once (complete() runs), which may start waiting calls.
        for (const QPointer<CallReply>& reply : silent) {
            if (reply && reply->d->exchange && !reply->d->finished) {
                reply->d->idlePassed = true;
                reply->d->exchange->abort();
            }
        }
    }

    // The reply's pacer, made when somebody first listens to its progress: a
    // reply nobody watches costs no pacing (its figures are running totals, so
    // a late listener still hears them right).
    static ProgressPacer* pacerOf(CallReply* reply)
    {
        CallReply::State& s = *reply->d;
        if (!s.pacer && s.progressHeard) {
            const OutgoingRequest& outgoing = s.deferred->outgoing();
            const qint64 bytesToSend = outgoing.verb == Verb::Get ? 0 : outgoing.form ? -1 : outgoing.body.size();
            s.pacer.emplace(s.operation, bytesToSend, [reply](const CallProgress& progress) { emit reply->progress(progress); });
        }
        return s.pacer ? &*s.pacer : nullptr;
    }

    static void complete(CallReply* reply)
    {
        CallReply::State& s = *reply->d;
        if (s.finished || !s.exchange)
            return;
        if (s.pacer)
            s.pacer->finish();
        ReceivedReply received = s.exchange->takeReply();
        received.cancelled = s.cancelled;
        if (s.idlePassed) {
            received.httpStatus = 0;
            received.complete = false;
            received.idlePassed = true;
        }
        s.failure = describeFailure(received, s.deferred->outgoing().request.url());
        s.result = s.deferred->finish(received);
        const QPointer<Client> client = s.client;
        // A reply that ended by itself comes from the event loop, and the next
        // waiting call takes its slot at once; one cancelled ended inside the
        // host's cancel(), whose caller may be cancelling the waiting calls
        // next, so the slot goes from the event loop.
        release(reply, s.cancelled);
        s.finished = true;
        if (client && !s.cancelled)
            pump(*client);
        emit reply->finished();
    }

    // What a finished call leaves (its exchange with Qt's reply, and the
    // request the exchange sent) goes in the sweep (Sweeper), after the
    // requests that the finished() slots started are on their way: anything
    // that runs between a reply's end and the next call's start holds that
    // call up, while after the start it runs as the service answers. The next
    // request's head is made ready then too (RequestCache::prepareSpare).
    static void retire(Client& client, std::unique_ptr<ExchangeInFlight> exchange, std::unique_ptr<DeferredCall> call)
    {
        Client::Private& c = *client.d;
        c.sweeper->post();
        // A thread that never runs its loop still lets go of them now and then.
        if (c.leftovers.size() >= 64)
            c.leftovers.clear();
        c.leftovers.push_back({std::move(call), std::move(exchange)});
    }

    // Lets go of the exchange and of the client's slot. The exchange goes in
    // the client's next sweep (retire) when none of its code is under way, else
    // through a posted event; the call's request and sink go with it.
    static void release(CallReply* reply, bool pumpLater = true)
    {
        CallReply::State& s = *reply->d;
        if (s.exchange) {
            // A file the call began to take goes before the call ends, not with
        // whatever is left of the exchange.
        s.deferred->discardUnstored();
        ExchangeInFlight* const exchange = s.exchange.release();
            exchange->onActivity = [] {};
            exchange->onSent = [](qint64, qint64) {};
            exchange->onReceived = [](qint64, qint64) {};
            exchange->onFinished = [] {};
            exchange->abort();
            if (!exchange->deletableNow()) {
                exchange->keepUntilDeleted(std::move(s.deferred));
                exchange->deleteLater();
            } else if (s.client) {
                retire(*s.client, std::unique_ptr<ExchangeInFlight>(exchange), std::move(s.deferred));
            } else {
                delete exchange;
            }
        }
        if (s.ownManager) { // later: one of its reply's signals may be under way
            s.ownManager->deleteLater();
            s.ownManager = nullptr;
        }
        s.pacer.reset();
        if (!s.client)
            return;
        Client::Private& c = *s.client->d;
        c.waiting.erase(std::remove(c.waiting.begin(), c.waiting.end(), reply), c.waiting.end());
        const auto found = std::find(c.inFlight.begin(), c.inFlight.end(), reply);
        if (found != c.inFlight.end()) {
            c.inFlight.erase(found);
            // Not from here when this runs inside a caller's slot or a destructor.
            if (pumpLater)
                QMetaObject::invokeMethod(s.client, [client = s.client] { pump(*client); }, Qt::QueuedConnection);
        }
    }

    static std::string cancelledText()
    {
        return compactText(statusDocument(400, message::requestCancelled));
    }

    static FailureReport cancelledReport() { return {CallFailure::Cancelled, QStringLiteral("request cancelled")}; }

    // Ends a call that has not finished: in flight, its exchange is aborted and
    // judged as cancelled; waiting, it is cancelled without being sent.
    static void cancel(CallReply* reply, bool announce)
    {
        CallReply::State& s = *reply->d;
        if (s.finished)
            return;
        s.cancelled = true;
        if (s.exchange && announce) {
            s.exchange->abort(); // complete() follows at once
            return;
        }
        release(reply);
        s.result = cancelledText();
        s.failure = cancelledReport();
        s.finished = true;
        if (announce)
            emit reply->finished();
    }
};

CallReply::CallReply(std::unique_ptr<State> state) : d(std::move(state)) {}

CallReply::~CallReply()
{
    CallDriver::cancel(this, false);
}

bool CallReply::isFinished() const
{
    return d->finished;
}

std::string CallReply::result() const
{
    return d->finished ? d->result : std::string();
}

CallFailure CallReply::failure() const
{
    return d->finished ? d->failure.cause : CallFailure::None;
}

std::string CallReply::failureText() const
{
    return d->finished ? d->failure.text.toStdString() : std::string();
}

void CallReply::cancel()
{
    CallDriver::cancel(this, true);
}

void CallReply::connectNotify(const QMetaMethod& signal)
{
    // Asking whether the signal is connected costs more on every figure.
    if (signal == QMetaMethod::fromSignal(&CallReply::progress))
        d->progressHeard = true;
}

Client::Client(QObject* parent) : QObject(parent), d(std::make_unique<Private>())
{
    // Children, so that they move with the client to another thread.
    d->manager.setParent(this);
    d->connections.setParent(this);
    d->idleWatch.setParent(this);
    d->sweeper = new Sweeper([this] {
        d->leftovers.clear();
        d->requests.prepareSpare();
    });
    d->sweeper->setParent(this);
    d->manager.setCookieJar(new KeepNoCookies); // the manager's child
    d->idleWatch.setSingleShot(true);
    connect(&d->idleWatch, &QTimer::timeout, this, [this] { CallDriver::watchIdle(*this); });
}

Client::~Client()
{
    const std::vector<CallReply*> inFlight = d->inFlight;
    std::vector<QPointer<CallReply>> all(d->waiting.begin(), d->waiting.end());
    all.insert(all.end(), inFlight.begin(), inFlight.end());
    for (const QPointer<CallReply>& reply : all) {
        if (reply) {
            reply->d->client = nullptr;
            reply->d->cancelled = true;
            CallDriver::release(reply);
            reply->d->result = CallDriver::cancelledText();
            reply->d->failure = CallDriver::cancelledReport();
            reply->d->finished = true;
        }
    }
    for (const QPointer<CallReply>& reply : all) {
        if (reply)
            emit reply->finished();
    }
}

CallReply* Client::call(const std::string& operation, const std::string& argument)
{
    const async::OperationFunction function = async::findOperation(operation);
    if (!function) {
        ResultDocument document = statusDocument(400, QStringLiteral("unknown operation"));
        document.insert("operation", QString::fromStdString(operation));
        return CallDriver::refused(compactText(document),
                                   {CallFailure::UnknownOperation, QStringLiteral("No operation named ") + QString::fromStdString(operation)});
    }
    return call(function, argument);
}

CallReply* Client::call(OperationFunction function, const std::string& argument)
{
    if (QThread::currentThread() != thread()) {
        const QString why = QStringLiteral("called from a thread other than the client's");
        return CallDriver::refused(compactText(statusDocument(400, why)), {CallFailure::WrongThread, why});
    }
    // Only the library's own operations defer their exchange; anything else
    // would block.
    if (!async::isNamedOperation(function)) {
        return CallDriver::refused(compactText(statusDocument(400, QStringLiteral("unknown operation"))),
                                   {CallFailure::UnknownOperation, QStringLiteral("No operation of the library's at that address")});
    }
    auto state = std::make_unique<CallReply::State>();
    state->client = this;
    CallReply* const reply = new CallReply(std::move(state));
    CallReply::State& s = *reply->d;
    std::string immediate;
    {
        const DeferredCall::Capture capture(*s.deferred);
        const RequestCache::Use requestCache(d->requests);
        immediate = function(argument);
    }
    if (!s.deferred->hasExchange()) {
        CallDriver::finishSoon(reply, std::move(immediate));
        return reply;
    }
    s.operation = s.deferred->operationName();
    if (d->waiting.empty() && int(d->inFlight.size()) < d->maxInFlight) {
        CallDriver::start(*this, reply);
    } else {
        d->waiting.push_back(reply);
        CallDriver::pump(*this);
    }
    return reply;
}

void Client::setIdleLimit(int milliseconds)
{
    d->idleLimitMs = qMax(1, milliseconds);
    d->connections.setIdleLimit(d->idleLimitMs);
}

int Client::idleLimit() const
{
    return d->idleLimitMs;
}

void Client::setMaxCallsInFlight(int calls)
{
    d->maxInFlight = qMax(1, calls);
    d->connections.setMaxPerRoute(d->maxInFlight);
    CallDriver::pump(*this);
}

int Client::maxCallsInFlight() const
{
    return d->maxInFlight;
}

} // namespace NORVA::NORVA_API_QT
