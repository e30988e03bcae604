// The program starts the command line with Qt Core alone and loads the window's module only when
// it opens the window.
#include "support/TestSupport.h"

#include <QFile>
#include <QProcess>
#include <QTemporaryDir>

#include <dlfcn.h>
#include <gtest/gtest.h>

namespace {

QString DynamicSection(const QString &binary)
{
    QProcess readelf;
    readelf.start(QStringLiteral("readelf"), {QStringLiteral("-d"), binary});
    readelf.waitForFinished();
    return QString::fromUtf8(readelf.readAllStandardOutput());
}

} // namespace

TEST(Launcher, CommandsNeedNoGuiLibrariesAndAMissingWindowIsExplained)
{
    const QString section = DynamicSection(QStringLiteral(TANNER_BINARY));
    ASSERT_TRUE(section.contains(QStringLiteral("libQt6Core"))) << qPrintable(section);
    EXPECT_FALSE(section.contains(QStringLiteral("libQt6Widgets")));
    EXPECT_FALSE(section.contains(QStringLiteral("libQt6Gui")));

    // A copy of the program without its module: commands work, the window explains itself.
    QTemporaryDir folder;
    const QString lonely = folder.path() + QStringLiteral("/tanner-backup");
    ASSERT_TRUE(QFile::copy(QStringLiteral(TANNER_BINARY), lonely));
    QProcess help;
    help.start(lonely, {QStringLiteral("--help")});
    ASSERT_TRUE(help.waitForFinished(20000));
    EXPECT_EQ(help.exitCode(), 0);
#ifndef TANNER_DESKTOP_MODULE
    GTEST_SKIP() << "built without the window: there is no module to miss";
#endif
    QProcess window;
    window.start(lonely, {});
    ASSERT_TRUE(window.waitForFinished(20000));
    EXPECT_EQ(window.exitCode(), 69);
    const QString message = QString::fromUtf8(window.readAllStandardError());
    EXPECT_TRUE(message.contains(folder.path() + QStringLiteral("/tanner-backup-desktop.so"))) << qPrintable(message);
    EXPECT_TRUE(message.contains(QStringLiteral("tanner-backup --help")));
}

TEST(Launcher, TheModuleOffersTheWindowsEntryPoint)
{
#ifndef TANNER_DESKTOP_MODULE
    GTEST_SKIP() << "built without the window";
#else
    void *module = ::dlopen(TANNER_DESKTOP_MODULE, RTLD_LAZY | RTLD_LOCAL);
    ASSERT_NE(module, nullptr) << ::dlerror();
    EXPECT_NE(::dlsym(module, "TannerRunDesktopApplication"), nullptr);
    EXPECT_NE(DynamicSection(QStringLiteral(TANNER_DESKTOP_MODULE)).indexOf(QStringLiteral("libQt6Widgets")), -1);
#endif
}
