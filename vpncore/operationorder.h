#pragma once

#include <QtCore/QtGlobal>

namespace vpncore {

/// Knows which operation of a connection is the newest. Operations nest, because every wait turns
/// the event loop. After a wait, an operation asks its token whether it is still the newest.
///
/// An operation begins with the disconnect() that ends what was before it.
class OperationOrder
{
public:
    class Token
    {
    public:
        /// @return whether a newer operation has begun. What was before the own one is not newer,
        ///         so this is false as long as the own one has not begun.
        bool isOvertaken() const { return m_order.m_newest > m_own; }

    private:
        friend class OperationOrder;
        Token(const OperationOrder &order, quint64 own)
            : m_order(order)
            , m_own(own)
        {
        }

        const OperationOrder &m_order;
        quint64 m_own;
    };

    OperationOrder() = default;
    OperationOrder(const OperationOrder &) = delete; // Tokens refer to it.
    OperationOrder &operator=(const OperationOrder &) = delete;

    /// @return the token of the operation that the next begin() begins; valid while this lives.
    Token next() const { return {*this, m_newest + 1}; }

    /// @return the token of the operation that began last; valid while this lives.
    Token current() const { return {*this, m_newest}; }

    /// Begins an operation.
    /// @return its token; valid while this lives.
    Token begin() { return {*this, ++m_newest}; }

private:
    quint64 m_newest = 0;
};

} // namespace vpncore
