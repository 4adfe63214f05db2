#pragma once

/// \file
/// Hexadecimal text, SHA-256 digests and AES-128 of byte data.
///
/// Conventions of these helpers: a null QByteArray or QString argument stands
/// for "nothing"; results that may be absent are std::optional.
///
/// Threads: any thread (each thread has its own cipher context).

#include <OrvellaKit/ORVExport.h>

#include <QByteArray>
#include <QString>

#include <cstddef>
#include <optional>

/// Upper-case hexadecimal text of the bytes, two characters per byte.
/// A null pointer fails the assertion "bytes != NULL" and gives "".
/// The conversion counter is 16 bits wide: inputs are meant to be shorter than
/// 65,536 bytes, and of a longer one only the first (length mod 65,536) bytes
/// are converted.
ORVELLAKIT_EXPORT QString ORVBytesToHexString(const void *bytes, std::size_t length);

/// Parses hexadecimal text two characters at a time with base-16 strtoul, one
/// byte per pair (the low 8 bits of its value). There is no validation: a pair
/// with an invalid character gives the value of its valid prefix, and an odd
/// final character is read together with the terminating NUL.
ORVELLAKIT_EXPORT QByteArray orv_dataFromHexString(const QString &string);

/// SHA-256 of the bytes as 64 upper-case hexadecimal characters.
ORVELLAKIT_EXPORT QString orv_SHA256String(const QByteArray &data);

/// Operation codes of the AES helpers.
enum ORVCCOperation : quint32 {
    kCCEncrypt = 0, ///< Encrypt.
    kCCDecrypt = 1, ///< Decrypt.
};

/// AES-128 in CBC mode with PKCS#7 padding and an all-zero IV. Only the first
/// 16 bytes of the key are used. A null key fails "key != nil". Returns
/// nothing when the cipher fails (bad padding, length not a multiple of 16).
/// This one encrypts.
ORVELLAKIT_EXPORT std::optional<QByteArray> orv_encryptedDataWithKey(const QByteArray &data, const QByteArray &key);
/// The same, decrypting.
ORVELLAKIT_EXPORT std::optional<QByteArray> orv_decryptedDataWithKey(const QByteArray &data, const QByteArray &key);
/// The same for `operation`, kCCEncrypt or kCCDecrypt; any other value fails
/// "operation == kCCEncrypt || operation == kCCDecrypt" and gives nothing.
/// A key shorter than 16 bytes is padded with zero bytes.
ORVELLAKIT_EXPORT std::optional<QByteArray> orv_dataByApplyingAESOperation(const QByteArray &data, quint32 operation,
                                                                           const QByteArray &key);
