// SPDX-License-Identifier: MIT
// board_browser: a window on the board records service.
//
//   board_browser                       the window, for a person
//   board_browser --script FILE.png ADDRESS USER PASSWORD UPLOAD
//       logs in, uploads UPLOAD, starts a second upload of it and cancels it
//       once bytes move, saves a picture of the window in FILE.png and exits
//       0 when all went as it should (for a test, with QT_QPA_PLATFORM=offscreen)
#include "board_browser.h"

#include <QApplication>
#include <QPixmap>
#include <QTimer>

#include <cstdio>

namespace {

int runScript(QApplication& application, BoardBrowser& window, const QStringList& words)
{
    const QString picture = words[0], address = words[1], user = words[2], password = words[3], file = words[4];
    int boardsBefore = -1;
    bool firstStored = false, cancelSeen = false;
    const auto fail = [&](const char* why) {
        std::fprintf(stderr, "board_browser: %s (%s)\n", why, qPrintable(window.status()));
        application.exit(1);
    };
    QObject::connect(&window, &BoardBrowser::loggedIn, [&](bool ok) {
        if (!ok)
            fail("the login failed");
    });
    QObject::connect(&window, &BoardBrowser::boardsListed, [&](int count) {
        if (boardsBefore < 0) {
            boardsBefore = count;
            window.upload(file);
        } else if (firstStored && !cancelSeen) {
            if (count != boardsBefore + 1)
                return fail("the uploaded board is not listed");
            window.upload(file); // the one to cancel
        }
    });
    QObject::connect(&window, &BoardBrowser::uploadProgressed, [&](qint64 sent, qint64) {
        if (firstStored && sent > 0)
            window.cancelUpload();
    });
    QObject::connect(&window, &BoardBrowser::uploadEnded, [&](bool stored) {
        if (!firstStored) {
            firstStored = stored;
            if (!stored)
                fail("the upload failed");
            return;
        }
        cancelSeen = true;
        if (stored || window.status() != QLatin1String("request cancelled"))
            return fail("the cancelled upload was stored");
        // The cancelled upload stored nothing: the list is as after the first.
        window.refreshBoards();
        QObject::connect(&window, &BoardBrowser::boardsListed, [&](int count) {
            if (count != boardsBefore + 1)
                return fail("the cancelled upload left a board");
            if (!window.grab().save(picture))
                return fail("the picture was not saved");
            application.exit(0);
        });
    });
    window.logIn(address, user, password);
    QTimer::singleShot(60000, &application, [&] { fail("the script took over a minute"); });
    return QApplication::exec();
}

} // namespace

int main(int argc, char** argv)
{
    QApplication application(argc, argv);
    BoardBrowser window;
    window.resize(520, 420);
    window.show();
    QStringList words = QApplication::arguments().mid(1);
    if (words.value(0) == QLatin1String("--script")) {
        if (words.size() != 6) {
            std::fprintf(stderr, "usage: board_browser --script FILE.png ADDRESS USER PASSWORD UPLOAD\n");
            return 2;
        }
        return runScript(application, window, words.mid(1));
    }
    return QApplication::exec();
}
