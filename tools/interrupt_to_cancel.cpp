// SPDX-License-Identifier: MIT
#include "interrupt_to_cancel.h"

#include "norva_api_qt_progress.h"

#include <QCoreApplication>
#include <QEvent>

#include <chrono>
#include <csignal>

namespace norva::command {

namespace {

std::atomic<bool> interruptSeen{false};
static_assert(std::atomic<bool>::is_always_lock_free, "set from a signal handler");

extern "C" void onInterrupt(int)
{
    interruptSeen = true;
    std::signal(SIGINT, SIG_DFL);
}

} // namespace

InterruptToCancel::InterruptToCancel()
{
    std::signal(SIGINT, onInterrupt);
    watcher = std::thread([this] {
        while (!stopping) {
            if (interruptSeen) {
                QCoreApplication::postEvent(this, new QEvent(QEvent::User));
                return;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    });
}

InterruptToCancel::~InterruptToCancel()
{
    stopping = true;
    watcher.join();
    if (!interruptSeen)
        std::signal(SIGINT, SIG_DFL);
}

bool InterruptToCancel::interrupted()
{
    return interruptSeen;
}

void InterruptToCancel::customEvent(QEvent*)
{
    NORVA::NORVA_API_QT::cancelCall();
}

} // namespace norva::command
