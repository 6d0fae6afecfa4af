#include "hostilerecords.h"

namespace hostilerecords {

namespace {

/// What OpenVPN reads of a line within an inline block at a time.
constexpr int kPieceBytes = 255;

struct Trick
{
    const char *name;
    QString text;
    bool isInjection;
};

QString padding(int size, QChar character = QLatin1Char('A'))
{
    return QString(size, character);
}

/// The inline blocks as the template has them, for a trick that ends the text early.
QString blocksOf(const VpnServerInformation &server)
{
    return QStringLiteral("<ca>\n%1</ca>\n<cert>\n%2</cert>\n<key>\n%3</key>\n")
        .arg(server.ca, server.cert, server.key);
}

/// Breaks out of the inline block of @p field and back into it. What is injected stands between,
/// so that all of the good record is still there and the tunnel comes up.
QVector<Trick> blockTricks(const QString &field, VpnServerInformation good,
                           const std::function<QString(int)> &directive)
{
    QVector<Trick> tricks;
    const QString pem = fieldOf(good, field);
    const QString closing = QStringLiteral("</%1>").arg(field);
    const QString opening = QStringLiteral("<%1>\n").arg(field);
    const auto line = [&tricks, &directive] { return directive(tricks.size()); };
    const auto add = [&](const char *name, const QString &before, const QString &tag,
                         bool isInjection) {
        const QString lineEnd = tag.endsWith(QLatin1Char('\n')) ? QString() : QStringLiteral("\n");
        const QString text =
            pem + before + tag + lineEnd + line() + QLatin1Char('\n') + opening + pem;
        tricks.append({name, text, isInjection});
    };

    add("closing tag at the start of a line", {}, closing, true);
    add("closing tag after exactly one piece", padding(kPieceBytes), closing, true);
    add("closing tag after exactly two pieces", padding(2 * kPieceBytes), closing, true);
    add("closing tag after blanks", QStringLiteral(" \t  "), closing, true);
    add("closing tag after a piece and blanks", padding(kPieceBytes) + QStringLiteral("  "),
        closing, true);
    add("closing tag after vertical tab and form feed", QStringLiteral("\v\f"), closing, true);
    add("closing tag after a carriage return", QStringLiteral("\r"), closing, true);
    add("closing tag before other text", {}, closing + QStringLiteral("AAAA"), true);
    add("closing tag with a carriage return", {}, closing + QStringLiteral("\r\n"), true);
    add("closing tag after a piece of two-byte characters",
        padding(kPieceBytes / 2, QChar(0xe9)) + QLatin1Char('A'), closing, true);
    add("closing tag after a piece of unknown characters", padding(kPieceBytes, QChar(0x416)),
        closing, true);
    add("closing tag inside an open PEM block",
        QStringLiteral("-----BEGIN CERTIFICATE-----\nQUJD\n"), closing, true);
    add("closing tag after a piece inside an open PEM block",
        QStringLiteral("-----BEGIN CERTIFICATE-----\n") + padding(kPieceBytes), closing, true);
    add("closing tag after a piece of header",
        QStringLiteral("-----BEGIN CERTIFICATE-----\nComment: ")
            + padding(kPieceBytes - int(qstrlen("Comment: "))),
        closing, true);

    add("closing tag in capitals", {}, closing.toUpper(), false);
    add("closing tag of no block", {}, QStringLiteral("</tls-auth>"), false);
    add("closing tag behind a carriage return within a line", QStringLiteral("AAAA\r"), closing,
        false);
    add("closing tag one character too early", padding(kPieceBytes - 1), closing, false);
    add("closing tag one character too late", padding(kPieceBytes + 1), closing, false);
    add("closing tag whose first character only ends in 0x3c", {}, QChar(0x13c) + closing.mid(1),
        false);
    add("closing tag whose first character is a full-width one", {}, QChar(0xff1c) + closing.mid(1),
        false);
    add("closing tag after a character that only ends in 0x0a", padding(9) + QChar(0x10a), closing,
        false);
    add("closing tag after a line separator", padding(9) + QChar(0x2028), closing, false);
    add("closing tag after next line (0x85)", padding(9) + QChar(0x85), closing, false);
    add("closing tag spelled with a place to fill", {}, QStringLiteral("%7") + closing.mid(1),
        false);

    tricks.append(
        {"end of the text after a closing tag",
         pem + closing + QLatin1Char('\n') + line() + QLatin1Char('\n') + blocksOf(good) + QChar(0),
         true});
    tricks.append({"directive as text around the block",
                   line() + QLatin1Char('\n') + pem + line() + QLatin1Char('\n'), false});
    tricks.append(
        {"directive inside the block",
         QStringLiteral("-----BEGIN CERTIFICATE-----\n%1\n-----END CERTIFICATE-----\n").arg(line())
             + pem,
         false});
    tricks.append({"places to fill", QStringLiteral("%1%2%3%4%5%6%7\n") + pem, false});
    return tricks;
}

QVector<Trick> hostTricks(const VpnServerInformation &good,
                          const std::function<QString(int)> &directive)
{
    QVector<Trick> tricks;
    const QString host = good.host;
    const QString remote = QStringLiteral("%1 %2").arg(host).arg(good.udpPort);
    const auto line = [&tricks, &directive] { return directive(tricks.size()); };
    const auto add = [&](const char *name, const QString &text, bool isInjection) {
        tricks.append({name, text, isInjection});
    };
    const int rest = kPieceBytes - int(qstrlen("remote ")); // of the first piece
    const QString comment = remote + QStringLiteral(" #");

    add("line feed before a directive and a comment",
        remote + QLatin1Char('\n') + line() + QStringLiteral("\n#"), true);
    add("line feed before a directive and a second remote",
        remote + QLatin1Char('\n') + line() + QStringLiteral("\nremote ") + host, true);
    add("carriage return and line feed before a directive",
        remote + QStringLiteral("\r\n") + line() + QStringLiteral("\r\n#"), true);
    add("end of the text after a directive",
        remote + QLatin1Char('\n') + line() + QLatin1Char('\n') + blocksOf(good)
            + QStringLiteral("client\ndev tun\nnobind\ncomp-lzo\ntun-mtu-extra 32\n")
            + QStringLiteral("cipher AES-256-CBC\nscript-security 2\n") + QChar(0),
        true);

    // OpenVPN 2.6 refuses such a line, other readers would take it apart.
    add("blanks up to the end of the piece",
        remote.leftJustified(rest) + line() + QStringLiteral(" #"), false);
    add("comment up to the end of the piece",
        comment.leftJustified(rest, QLatin1Char('A')) + line() + QStringLiteral(" #"), false);
    add("comment up to the end of the second piece",
        comment.leftJustified(rest, QLatin1Char('A')) + padding(kPieceBytes, QLatin1Char('#'))
            + line() + QStringLiteral(" #"),
        false);
    add("comment of two-byte characters up to the end of the piece",
        comment.leftJustified(comment.size() + (rest - comment.size()) % 2, QLatin1Char('A'))
            + padding((rest - comment.size()) / 2, QChar(0xe9)) + line() + QStringLiteral(" #"),
        false);
    add("comment of unknown characters up to the end of the piece",
        comment.leftJustified(rest, QChar(0x416)) + line() + QStringLiteral(" #"), false);
    add("quoted host and blanks up to the end of the piece",
        QStringLiteral("\"%1\" '%2'").arg(host).arg(good.udpPort).leftJustified(rest) + line()
            + QStringLiteral(" #"),
        false);

    add("carriage return alone", remote + QLatin1Char('\r') + line() + QStringLiteral("\r#"),
        false);
    add("blank and a comment", comment + line(), false);
    add("quotes", QLatin1Char('"') + host + QStringLiteral("\" ") + line(), false);
    add("quote that is not closed", QLatin1Char('\'') + host + QLatin1Char('\n') + line(), false);
    add("backslash before the line's end", host + QStringLiteral("\\ ") + line(), false);
    add("character that only ends in 0x0a", remote + QChar(0x10a) + line() + QStringLiteral(" #"),
        false);
    add("line separator", remote + QChar(0x2028) + line() + QStringLiteral(" #"), false);
    add("next line (0x85)", remote + QChar(0x85) + line() + QStringLiteral(" #"), false);
    add("vertical tab and form feed", remote + QStringLiteral("\v\f") + line(), false);
    add("tab and a comment", host + QLatin1Char('\t') + line() + QStringLiteral(" #"), false);
    add("semicolon", host + QLatin1Char(';') + line(), false);
    add("places to fill", QStringLiteral("%1%2%3%4%5%6%7"), false);
    return tricks;
}

} // namespace

QStringList fields()
{
    return {QStringLiteral("host"), QStringLiteral("ca"), QStringLiteral("cert"),
            QStringLiteral("key")};
}

QString &fieldOf(VpnServerInformation &server, const QString &field)
{
    if (field == QLatin1String("host"))
        return server.host;
    if (field == QLatin1String("ca"))
        return server.ca;
    if (field == QLatin1String("cert"))
        return server.cert;
    Q_ASSERT(field == QLatin1String("key"));
    return server.key;
}

QVector<Record> of(const QString &field, const VpnServerInformation &good,
                   const std::function<QString(int n)> &directive)
{
    const QVector<Trick> tricks = field == QLatin1String("host")
        ? hostTricks(good, directive)
        : blockTricks(field, good, directive);
    QVector<Record> records;
    for (const Trick &trick : tricks) {
        Record record{QString::fromLatin1(trick.name), field, good, trick.isInjection};
        fieldOf(record.server, field) = trick.text;
        records.append(record);
    }
    return records;
}

} // namespace hostilerecords
