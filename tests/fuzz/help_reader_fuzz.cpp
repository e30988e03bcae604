// libFuzzer target for the help package reader, both forms (see HelpReaderExercise.h for the
// input's layout). A broken promise or a sanitizer report stops the run with the input saved.
#include "tests/fuzz/HelpReaderExercise.h"

#include <QTemporaryDir>

#include <cstdio>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static QTemporaryDir folder(QStringLiteral("/dev/shm/tanner-help-fuzz-XXXXXX"));
    const QByteArray input = QByteArray::fromRawData(reinterpret_cast<const char *>(data), qsizetype(size));
    const QString broken = tanner::test::ExerciseHelpReader(input, folder.path());
    if (!broken.isEmpty()) {
        std::fprintf(stderr, "help reader: %s\n", broken.toUtf8().constData());
        std::abort();
    }
    return 0;
}
