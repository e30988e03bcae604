// libFuzzer target for the XML decoder: any bytes, read through every public call in an order the
// input chooses. A broken promise or a sanitizer report stops the run with the input saved.
#include "tests/fuzz/XmlDecoderExercise.h"

#include <cstdio>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArray input = QByteArray::fromRawData(reinterpret_cast<const char *>(data), qsizetype(size));
    const QString broken = tanner::test::ExerciseXmlDecoder(input);
    if (!broken.isEmpty()) {
        std::fprintf(stderr, "KSXmlDecoder: %s\n", broken.toUtf8().constData());
        std::abort();
    }
    return 0;
}
