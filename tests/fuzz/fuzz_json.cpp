// JSON parsing and the typed getters on whatever object comes out.

#include "FuzzSupport.h"

#include <OrvellaKit/ORVError.h>
#include <OrvellaKit/ORVJSON.h>

#include <QJsonArray>
#include <QJsonObject>
#include <QStringEncoder>

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    orv::fuzz::setUp();
    return 0;
}

namespace {
void readEveryKey(const QJsonObject &object, int depth)
{
    if (depth > 4)
        return;
    for (auto it = object.begin(); it != object.end(); ++it) {
        const QString key = it.key();
        (void)orv_numberForKey(object, key);
        (void)orv_stringForKey(object, key);
        (void)orv_nonEmptyStringForKey(object, key);
        (void)orv_dateSince1970ForKey(object, key);
        (void)orv_arrayForKey(object, key);
        (void)orv_checkedObjectForKey(object, key, QJsonValue::Double);
        if (const auto nested = orv_dictionaryForKey(object, key))
            readEveryKey(*nested, depth + 1);
    }
    (void)orv_stringForKey(object, QStringLiteral("token"));
    (void)orv_dateSince1970ForKey(object, QStringLiteral("expires"));
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArray json = orv::fuzz::bytes(data, size);
    ORVError error;
    const auto value = orv_JSONObjectWithData(json, 0, &error);
    if (!value && error.isNull())
        orv::fuzz::fail("a failed parse gives an error");
    if (value && value->isObject())
        readEveryKey(value->toObject(), 0);
    const auto dictionary = orv_JSONDictionaryWithData(json, &error);
    const auto array = orv_JSONArrayWithData(json, &error);
    if (dictionary && array)
        orv::fuzz::fail("a text is an object or an array, not both");
    if (array)
        for (const QJsonValue &element : *array)
            if (element.isObject())
                readEveryKey(element.toObject(), 1);
    // The same text in UTF-16 reads the same. Only UTF-8 that decodes and
    // starts with two ASCII characters, as JSON text does, has an
    // unambiguous other encoding.
    const QString text = QString::fromUtf8(json);
    if (value && text.toUtf8() == json && json.size() >= 2 && uchar(json[0]) < 0x80 && uchar(json[1]) < 0x80 &&
        json[0] != 0 && json[1] != 0) {
        QStringEncoder utf16(QStringConverter::Utf16BE);
        const QByteArray wide(utf16.encode(text));
        if (orv_JSONObjectWithData(wide, 0, nullptr) != value)
            orv::fuzz::fail("a text reads the same in UTF-16");
    }
    return 0;
}
