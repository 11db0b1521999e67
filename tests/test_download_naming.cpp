// Download naming: the name behind the last "=", renamed or stamped.
#include "transfer/download.h"

#include <QDir>
#include <QtTest>

using norva::transfer::deriveDownloadName;
using norva::transfer::staysInFolder;

class DownloadNamingTest : public QObject
{
    Q_OBJECT

private slots:
    void naming();
    void foldersAreNeverLeft();
};

void DownloadNamingTest::naming()
{
    const QByteArray example = "attachment;filename=top%20layer.gbr";
    const QString full = "yyyyMMddhhmmss";
    const struct {
        const char* name;
        QByteArray header;
        QString reName;
        bool stamp;
        QString format, stored, filename, newName;
    } rows[] = {
        // The worked example: 14:07:09 on 5 March 2024.
        {"example: plain", example, "", false, full, "top layer.gbr", "top layer.gbr", ""},
        {"example: stamped", example, "", true, full, "top layer_20240305140709.gbr", "top layer_20240305140709.gbr", ""},
        {"example: renamed", example, "second", false, full, "second.gbr", "top layer.gbr", "second.gbr"},
        {"example: renamed and stamped", example, "second", true, full, "second.gbr", "top layer.gbr", "second.gbr"},
        {"the object's day stamp", example, "", true, "yyyyMMdd", "top layer_20240305.gbr", "top layer_20240305.gbr", ""},
        {"no header", QByteArray(), "", false, full, "", "", ""},
        {"no header, stamped", QByteArray(), "", true, full, "_20240305140709.", "_20240305140709.", ""},
        {"no header, renamed", QByteArray(), "x", false, full, "x.", "", "x."},
        {"no = at all", "attachment", "", false, full, "attachment", "attachment", ""},
        {"quotes stay", "filename=\"a.brd\"", "", false, full, "\"a.brd\"", "\"a.brd\"", ""},
        {"the last = decides", "filename=a.brd;size=10", "", false, full, "10", "10", ""},
        {"an encoded = counts", "filename=a%3Db.brd", "", false, full, "b.brd", "b.brd", ""},
        {"no point, stamped", "filename=notes", "", true, full, "notes_20240305140709.notes", "notes_20240305140709.notes", ""},
        {"no point, renamed", "filename=notes", "x", false, full, "x.notes", "notes", "x.notes"},
        {"leading point, stamped", "filename=.cfg", "", true, full, "_20240305140709.cfg", "_20240305140709.cfg", ""},
        {"reName with a point", "filename=a.brd", "x.y", false, full, "x.y.brd", "a.brd", "x.y.brd"},
        {"UTF-8 in the header", "filename=%E6%B5%8B.brd", "", false, full, QString::fromUtf8("测.brd"), QString::fromUtf8("测.brd"), ""},
    };
    const QDateTime clock(QDate(2024, 3, 5), QTime(14, 7, 9));
    for (const auto& row : rows) {
        const auto name = deriveDownloadName(row.header, row.reName, row.stamp, clock, row.format);
        QVERIFY2(name.stored == row.stored && name.filename == row.filename && name.newName == row.newName,
                 qPrintable(QStringLiteral("%1: %2 / %3 / %4").arg(row.name, name.stored, name.filename, name.newName)));
    }
}

void DownloadNamingTest::foldersAreNeverLeft()
{
    // Windows reads a backslash as a separator and ":" as a drive or a stream.
    const bool windows = QDir::separator() == QLatin1Char('\\');
    const struct {
        QString name;
        bool stays;
    } rows[] = {
        {"top layer.gbr", true}, {"", true}, {"a..b", true}, {"a\\b", !windows}, {"a:b", !windows},
        {".", false}, {"..", false}, {"a/b", false}, {QString::fromLatin1("a\0b", 3), false},
    };
    for (const auto& row : rows)
        QVERIFY2(staysInFolder(row.name) == row.stays, qPrintable(row.name));
}

QTEST_APPLESS_MAIN(DownloadNamingTest)
#include "test_download_naming.moc"
