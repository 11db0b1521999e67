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
    void naming_data();
    void naming();
    void foldersAreNeverLeft_data();
    void foldersAreNeverLeft();
};

void DownloadNamingTest::naming_data()
{
    QTest::addColumn<QByteArray>("header");
    QTest::addColumn<QString>("reName");
    QTest::addColumn<bool>("stamp");
    QTest::addColumn<QString>("format");
    QTest::addColumn<QString>("stored");
    QTest::addColumn<QString>("filename");
    QTest::addColumn<QString>("newName");

    const QByteArray example = "attachment;filename=top%20layer.gbr";
    const QString full = "yyyyMMddhhmmss";
    // The worked example: 14:07:09 on 5 March 2024.
    QTest::newRow("example: plain") << example << "" << false << full << "top layer.gbr" << "top layer.gbr" << "";
    QTest::newRow("example: stamped") << example << "" << true << full << "top layer_20240305140709.gbr"
                                      << "top layer_20240305140709.gbr" << "";
    QTest::newRow("example: renamed") << example << "second" << false << full << "second.gbr" << "top layer.gbr" << "second.gbr";
    QTest::newRow("example: renamed and stamped") << example << "second" << true << full << "second.gbr" << "top layer.gbr"
                                                  << "second.gbr";
    QTest::newRow("the object's day stamp") << example << "" << true << "yyyyMMdd" << "top layer_20240305.gbr"
                                            << "top layer_20240305.gbr" << "";

    QTest::newRow("no header") << QByteArray() << "" << false << full << "" << "" << "";
    QTest::newRow("no header, stamped") << QByteArray() << "" << true << full << "_20240305140709." << "_20240305140709." << "";
    QTest::newRow("no header, renamed") << QByteArray() << "x" << false << full << "x." << "" << "x.";
    QTest::newRow("no = at all") << QByteArray("attachment") << "" << false << full << "attachment" << "attachment" << "";
    QTest::newRow("quotes stay") << QByteArray("filename=\"a.brd\"") << "" << false << full << "\"a.brd\"" << "\"a.brd\"" << "";
    QTest::newRow("the last = decides") << QByteArray("filename=a.brd;size=10") << "" << false << full << "10" << "10" << "";
    QTest::newRow("an encoded = counts") << QByteArray("filename=a%3Db.brd") << "" << false << full << "b.brd" << "b.brd" << "";
    QTest::newRow("no point, stamped") << QByteArray("filename=notes") << "" << true << full << "notes_20240305140709.notes"
                                       << "notes_20240305140709.notes" << "";
    QTest::newRow("no point, renamed") << QByteArray("filename=notes") << "x" << false << full << "x.notes" << "notes" << "x.notes";
    QTest::newRow("leading point, stamped") << QByteArray("filename=.cfg") << "" << true << full << "_20240305140709.cfg"
                                            << "_20240305140709.cfg" << "";
    QTest::newRow("reName with a point") << QByteArray("filename=a.brd") << "x.y" << false << full << "x.y.brd" << "a.brd"
                                         << "x.y.brd";
    QTest::newRow("UTF-8 in the header") << QByteArray("filename=%E6%B5%8B.brd") << "" << false << full
                                         << QString::fromUtf8("测.brd") << QString::fromUtf8("测.brd") << "";
}

void DownloadNamingTest::naming()
{
    QFETCH(QByteArray, header);
    QFETCH(QString, reName);
    QFETCH(bool, stamp);
    QFETCH(QString, format);
    QFETCH(QString, stored);
    QFETCH(QString, filename);
    QFETCH(QString, newName);
    const QDateTime clock(QDate(2024, 3, 5), QTime(14, 7, 9));
    const auto name = deriveDownloadName(header, reName, stamp, clock, format);
    QCOMPARE(name.stored, stored);
    QCOMPARE(name.filename, filename);
    QCOMPARE(name.newName, newName);
}

void DownloadNamingTest::foldersAreNeverLeft_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<bool>("stays");
    QTest::newRow("ordinary") << "top layer.gbr" << true;
    QTest::newRow("empty (fails to open as the folder)") << "" << true;
    QTest::newRow("dots inside") << "a..b" << true;
    // Windows reads a backslash as a separator and ":" as a drive or a stream.
    const bool windows = QDir::separator() == QLatin1Char('\\');
    QTest::newRow("backslash") << "a\\b" << !windows;
    QTest::newRow("colon") << "a:b" << !windows;
    QTest::newRow("dot") << "." << false;
    QTest::newRow("dot dot") << ".." << false;
    QTest::newRow("separator") << "a/b" << false;
    QTest::newRow("NUL") << QString::fromLatin1("a\0b", 3) << false;
}

void DownloadNamingTest::foldersAreNeverLeft()
{
    QFETCH(QString, name);
    QFETCH(bool, stays);
    QCOMPARE(staysInFolder(name), stays);
}

QTEST_APPLESS_MAIN(DownloadNamingTest)
#include "test_download_naming.moc"
