#include "openvpnoutput.h"

#include <QtCore/QVector>

#include <utility>

namespace vpncore {

namespace {

/// An unfinished line may be longer; then only its end is kept, with room for any marker and for
/// "VERIFY" that is cut in two.
constexpr int kMaxLine = 4096;
constexpr int kKeptOfLongLine = 64;

} // namespace

void OpenvpnOutput::add(const QByteArray &bytes)
{
    if (m_isPassCut)
        return;
    m_isPassCut = bytes.contains('\0');
    const QByteArray arrived(bytes.constData()); // up to the zero byte
    m_pass += arrived.left(kMaxLoggedBytes - m_pass.size());

    m_line += QString::fromLatin1(arrived);
    const int end = m_line.lastIndexOf(QLatin1Char('\n')) + 1;
    QString lines = m_found;
    for (const QStringRef &line : m_line.leftRef(end).split(QLatin1Char('\n')))
        lines += judged(line.toString()) + QLatin1Char('\n');
    m_line.remove(0, end);

    const QString shown = judged(m_line);
    if (m_line.size() > kMaxLine) {
        lines += shown;
        // A line of which the rest is left out anyway stays recognisable as such.
        m_line = shown.size() < m_line.size() ? shown.right(kKeptOfLongLine) + QLatin1Char(':')
                                              : m_line.right(kKeptOfLongLine);
    }
    m_found = markersIn(lines);
}

QString OpenvpnOutput::endPass()
{
    m_isPassCut = false;
    return QString::fromLatin1(std::exchange(m_pass, {}));
}

QString OpenvpnOutput::judged(const QString &line)
{
    // "[NAME] Peer Connection Initiated with ADDRESS" says nothing that counts.
    if (line.contains(QLatin1String("] Peer Connection Initiated")))
        return {};
    const int verify = line.indexOf(QLatin1String("VERIFY"));
    return verify < 0 ? line : line.left(line.indexOf(QLatin1Char(':'), verify));
}

QString OpenvpnOutput::markersIn(const QString &text)
{
    QString found;
    for (const char *marker : {kSuccessMarker, kRetryMarker, kErrorMarker, kIpv6Marker}) {
        if (text.contains(QLatin1String(marker)))
            found += QLatin1String(marker) + QLatin1Char('\n');
    }
    return found;
}

} // namespace vpncore
