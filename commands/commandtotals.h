#pragma once

/// How many commands of all clients run inside each other's event loops: a command waits for
/// `openvpn` while the loop turns, and a command of another client begins inside that wait. One
/// object, which all endpoints share, bounds the stack.
class CommandTotals
{
public:
    /// Some 10 KiB of stack each, where a process has 8 MiB.
    static constexpr int kMaxRunning = 64;

    /// @return whether a command may begin now. Once kMaxRunning run, none may until all of these
    /// have
    ///         ended: one that took the place of each that ends would hold up all those in whose
    ///         waits it runs, by its own time, over and over.
    bool mayBegin() const { return !m_isUnwinding; }

    void begin() { m_isUnwinding = ++m_running >= kMaxRunning; }

    void end() { m_isUnwinding = --m_running > 0 && m_isUnwinding; }

private:
    int m_running = 0;
    bool m_isUnwinding = false;
};
