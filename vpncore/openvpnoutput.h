#pragma once

#include <QtCore/QString>

namespace vpncore {

// What the verdict on an attempt looks for.
constexpr char kSuccessMarker[] = "Initialization Sequence Completed";
constexpr char kRetryMarker[] = "failed, will try again in";
constexpr char kErrorMarker[] = "ERROR";
constexpr char kIpv6Marker[] = "ipv6 command failed";

/// What `openvpn` prints in one attempt, pass by pass and as a whole.
///
/// The verdict looks for markers anywhere in the whole output, so of what has been searched only
/// the markers that were found are kept, and an `openvpn` that prints without end costs no memory.
///
/// A server that has proved nothing yet can choose the names in its certificates, and `openvpn`
/// prints them in lines with "VERIFY" (ssl_verify.c and ssl_verify_openssl.c of OpenVPN 2.6). Of
/// such a line the verdict sees only what stands before the first colon after that word, for
/// instance "VERIFY ERROR". A name cannot begin a line of its own: `openvpn` escapes control
/// characters.
class OpenvpnOutput
{
public:
    /// How much of one pass is kept for the log, in bytes.
    static constexpr int kMaxLoggedBytes = 1024 * 1024;

    /// Takes what was printed since the last call. What follows a zero byte is left out until the
    /// pass ends.
    void add(const QByteArray &bytes);

    /// Ends the pass.
    /// @return what it brought: up to the first zero byte, bytes beyond ASCII taken for Latin-1; of
    ///         more than kMaxLoggedBytes, the first of them.
    QString endPass();

    /// @return a text in which the same markers stand as in everything so far, but for the names
    ///         that a server chose.
    QString judgedText() const { return m_found + judged(m_line); }

private:
    static QString judged(const QString &line);
    static QString markersIn(const QString &text);

    QByteArray m_pass;
    bool m_isPassCut = false; ///< by a zero byte
    QString m_found; ///< markers, each followed by a line feed
    QString m_line; ///< the unfinished line
};

} // namespace vpncore
