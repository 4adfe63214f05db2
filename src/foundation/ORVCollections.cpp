#include <OrvellaKit/ORVCollections.h>

#include <OrvellaKit/ORVStringWithFormat.h>

namespace orv::detail {

void rejectNilObject(const char *operation)
{
    throw ORVException(ORVException::invalidArgumentName,
                       ORVStringWithFormat("*** %@: attempt to insert nil object", QString::fromLatin1(operation)));
}

quint32 uniformRandom(quint32 upperBound)
{
    if (upperBound < 2)
        return 0;
    // Lemire's multiply-shift with the rejection step that makes it exact:
    // draws whose low half falls below 2^32 mod upperBound are redrawn.
    QRandomGenerator *generator = QRandomGenerator::global();
    quint64 product = quint64(generator->generate()) * upperBound;
    auto low = static_cast<quint32>(product);
    if (low < upperBound) {
        const quint32 threshold = static_cast<quint32>(-upperBound) % upperBound;
        while (low < threshold) {
            product = quint64(generator->generate()) * upperBound;
            low = static_cast<quint32>(product);
        }
    }
    return static_cast<quint32>(product >> 32);
}

} // namespace orv::detail
