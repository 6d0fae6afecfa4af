#pragma once

#include <QtCore/QString>
#include <QtCore/QVector>

/// Connections to a local socket that say nothing, as a flood would open them. Every one costs one
/// descriptor of the test's own.
class RawConnections
{
public:
    RawConnections() = default;
    ~RawConnections();
    RawConnections(const RawConnections &) = delete;
    RawConnections &operator=(const RawConnections &) = delete;

    /// Opens @p number connections more; the daemon need not have accepted them when this returns.
    /// The event loop turns meanwhile, so that the daemon does not wait for its log to be read.
    /// @return false when the socket cannot be connected to.
    bool open(const QString &name, int number);

    /// @return how many of them the daemon has closed.
    int closedByDaemon() const;

    void closeAll();

private:
    QVector<int> m_descriptors;
};
