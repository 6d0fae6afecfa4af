#pragma once

#include <QtCore/QDataStream>
#include <QtCore/QMetaType>
#include <QtCore/QString>

/// The outcome of an operation, as it travels to the client with every command result.
struct OperationResult
{
    qint32 code = 1; ///< Always 1 in what this system builds, for success and failure alike.
    bool success = true; ///< False on every failure.
    QString message; ///< A localisation key for the client to translate, or a plain text.

    /// @return the success value: code 1, no message.
    static OperationResult succeeded() { return {}; }

    /// @param message what the client is told: a localisation key or a plain text.
    /// @return a failure: code 1 and @p message.
    static OperationResult failed(const QString &message) { return {1, false, message}; }
};

/// Writes the fields in declaration order.
inline QDataStream &operator<<(QDataStream &stream, const OperationResult &result)
{
    return stream << result.code << result.success << result.message;
}

/// Reads what the other operator writes; failures are the stream's status.
inline QDataStream &operator>>(QDataStream &stream, OperationResult &result)
{
    return stream >> result.code >> result.success >> result.message;
}

Q_DECLARE_METATYPE(OperationResult)
