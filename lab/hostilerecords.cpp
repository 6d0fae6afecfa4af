#include "hostilerecords.h"

#include <array>

namespace hostilerecords {

namespace {

/// What OpenVPN reads of a line within an inline block at a time.
constexpr int kPieceBytes = 255;

QString padding(int size, QChar character = 'A')
{
    return QString(size, character);
}

class Maker
{
public:
    Maker(const QString &field, const VpnServerInformation &good,
          const std::function<QString(int)> &directive)
        : m_field(field)
        , m_good(good)
        , m_directive(directive)
    {
    }

    /// @param text the field's, with "DIRECTIVE" where the line to inject goes.
    void add(const char *name, QString text, bool isInjection)
    {
        text.replace("DIRECTIVE", m_directive(m_records.size()));
        VpnServerInformation server = m_good;
        fieldOf(server, m_field) = text;
        m_records.append({QString::fromLatin1(name), m_field, server, isInjection});
    }

    QVector<Record> records() const { return m_records; }

private:
    QString m_field;
    VpnServerInformation m_good;
    std::function<QString(int)> m_directive;
    QVector<Record> m_records;
};

/// Breaks out of the inline block of @p field and back into it. What is injected stands between,
/// so that all of the good record is still there and the tunnel comes up.
void addBlockTricks(Maker &maker, const QString &field, VpnServerInformation good)
{
    const QString pem = fieldOf(good, field);
    const QString closing = QString("</%1>").arg(field);
    const auto breakOut = [&](const char *name, const QString &tag, bool isInjection) {
        maker.add(name, pem + tag + QString("\nDIRECTIVE\n<%1>\n").arg(field) + pem, isInjection);
    };
    breakOut("closing tag at the start of a line", closing, true);
    breakOut("closing tag after exactly one piece", padding(kPieceBytes) + closing, true);
    breakOut("closing tag after exactly two pieces", padding(2 * kPieceBytes) + closing, true);
    breakOut("closing tag after a piece and white space",
             padding(kPieceBytes) + " \t\v\f\r" + closing, true);
    breakOut("closing tag after a piece of two-byte characters",
             padding(kPieceBytes / 2, QChar(0xe9)) + 'A' + closing, true);
    breakOut("closing tag after a piece of unknown characters",
             padding(kPieceBytes, QChar(0x416)) + closing, true);
    breakOut("closing tag before other text", closing + "AAAA\r", true);
    maker.add("end of the text after a closing tag",
              pem + closing
                  + QString("\nDIRECTIVE\n<ca>\n%1</ca>\n<cert>\n%2</cert>\n<key>\n%3"
                            "</key>\n")
                        .arg(good.ca, good.cert, good.key)
                  + QChar(0),
              true);

    breakOut("closing tag in capitals", closing.toUpper(), false);
    breakOut("closing tag of no block", "</tls-auth>", false);
    breakOut("closing tag one character too early", padding(kPieceBytes - 1) + closing, false);
    breakOut("closing tag one character too late", padding(kPieceBytes + 1) + closing, false);
    breakOut("closing tag whose first character only ends in 0x3c", QChar(0x13c) + closing.mid(1),
             false);
    breakOut("closing tag after a character that only ends in 0x0a",
             padding(9) + QChar(0x10a) + closing, false);
    breakOut("closing tag after next line (0x85)", padding(9) + QChar(0x85) + closing, false);
    breakOut("closing tag spelled with a place to fill", "%7" + closing.mid(1), false);
    maker.add("directive inside the block", "DIRECTIVE\n" + pem, false);
    maker.add("places to fill", "%1%2%3%4%5%6%7\n" + pem, false);
}

void addHostTricks(Maker &maker, const VpnServerInformation &good)
{
    const QString remote = QString("%1 %2").arg(good.host).arg(good.udpPort);
    const int rest = kPieceBytes - int(qstrlen("remote ")); // of the first piece
    const auto add = [&](const char *name, const QString &text, bool isInjection) {
        maker.add(name, remote + text, isInjection);
    };
    add("line feed before a directive and a comment", "\nDIRECTIVE\n#", true);
    add("line feed before a directive and a second remote", "\nDIRECTIVE\nremote " + good.host,
        true);
    add("carriage return and line feed", "\r\nDIRECTIVE\r\n#", true);
    add("end of the text after a directive",
        QString("\nDIRECTIVE\n<ca>\n%1</ca>\n<cert>\n%2</cert>\n<key>\n%3</key>\n"
                "client\ndev tun\nnobind\ncomp-lzo\ntun-mtu-extra 32\n"
                "cipher AES-256-CBC\nscript-security 2\n")
                .arg(good.ca, good.cert, good.key)
            + QChar(0),
        true);

    // OpenVPN 2.6 refuses such a line, other readers would take it apart.
    add("blanks up to the end of the piece", padding(rest - remote.size(), ' ') + "DIRECTIVE #",
        false);
    add("comment up to the end of the piece",
        " #" + padding(rest - remote.size() - 2) + "DIRECTIVE #", false);
    add("carriage return alone", "\rDIRECTIVE\r#", false);
    add("blank and a comment", " #DIRECTIVE", false);
    add("character that only ends in 0x0a", QChar(0x10a) + QString("DIRECTIVE #"), false);
    add("next line (0x85)", QChar(0x85) + QString("DIRECTIVE #"), false);
    add("line separator", QChar(0x2028) + QString("DIRECTIVE #"), false);
    add("vertical tab and form feed", "\v\fDIRECTIVE", false);
    maker.add("quotes", QString("\"%1\" DIRECTIVE").arg(good.host), false);
    maker.add("backslash before the port", good.host + "\\ DIRECTIVE", false);
    maker.add("semicolon", good.host + ";DIRECTIVE", false);
    maker.add("places to fill", "%1%2%3%4%5%6%7", false);
}

} // namespace

QStringList fields()
{
    return {"host", "ca", "cert", "key"};
}

QString &fieldOf(VpnServerInformation &server, const QString &field)
{
    const QStringList names = fields();
    const std::array texts{&server.host, &server.ca, &server.cert, &server.key};
    return *texts.at(static_cast<std::size_t>(names.indexOf(field)));
}

QVector<Record> of(const QString &field, const VpnServerInformation &good,
                   const std::function<QString(int n)> &directive)
{
    Maker maker(field, good, directive);
    if (field == fields().first())
        addHostTricks(maker, good);
    else
        addBlockTricks(maker, field, good);
    return maker.records();
}

} // namespace hostilerecords
