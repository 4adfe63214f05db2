// Runs the sample application with --screenshots: it signs in against its
// embedded server, builds every window component and writes a PNG of each.

#include "OrvTestSupport.h"

#include <QDir>
#include <QImage>

using namespace orv::test;

namespace {

class SampleWindowsTest : public XdgHomeTest {};

TEST_F(SampleWindowsTest, WritesAPictureOfEveryWindow)
{
    const QString folder = home.filePath("shots");
    const ProcessResult run = runOffscreenProgram(QStringLiteral(KALENDRO_SAMPLE_PATH), {"--screenshots", folder});
    ASSERT_TRUE(run.finished);
    EXPECT_EQ(run.exitCode, 0) << run.output.toStdString();

    QMap<QString, QSize> sizes;
    for (const char *name : {"preferences-general", "preferences-account", "alert", "crash-report",
                             "pending-submissions"}) {
        const QImage image(QDir(folder).filePath(QString::fromLatin1(name) + ".png"));
        EXPECT_FALSE(image.isNull()) << name;
        sizes[name] = image.size();
    }
    // Both panes in the same 475-wide window, each at its own height.
    EXPECT_EQ(sizes["preferences-general"].width(), 475);
    EXPECT_EQ(sizes["preferences-account"].width(), 475);
    EXPECT_NE(sizes["preferences-general"].height(), sizes["preferences-account"].height());
}

} // namespace
