// SPDX-License-Identifier: MIT
// Ctrl-C during a call cancels that call through the library, so that nothing
// half done is left behind (a download stores nothing).
#pragma once

#include <QObject>

#include <atomic>
#include <thread>

namespace norva::command {

// While it lives, an interrupt (SIGINT) cancels the call that the thread which
// made this object is waiting in; a second interrupt ends the program as usual.
// A signal handler may only set a flag, and the cancel must come from the
// calling thread: a small watcher thread sees the flag and posts an event to
// this object, which the call's wait delivers on the calling thread.
class InterruptToCancel final : public QObject
{
public:
    InterruptToCancel();
    ~InterruptToCancel() override;

    static bool interrupted();

protected:
    void customEvent(QEvent* event) override;

private:
    std::atomic<bool> stopping{false};
    std::thread watcher;
};

} // namespace norva::command
