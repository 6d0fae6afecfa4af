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

/// Adds a record whose field is @p text, in which "DIRECTIVE" stands for the line to inject.
using Add = std::function<void(const char *name, QString text, bool isInjection)>;

/// Breaks out of the inline block of @p field and back into it. What is injected stands between,
/// so that all of the good record is still there and the tunnel comes up.
void addBlockTricks(const Add &add, const QString &field, VpnServerInformation good)
{
    const QString pem = fieldOf(good, field);
    const QString closing = QString("</%1>").arg(field);
    const auto breakOut = [&](const char *name, const QString &tag, bool isInjection) {
        add(name, pem + tag + QString("\nDIRECTIVE\n<%1>\n").arg(field) + pem, isInjection);
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
    add("end of the text after a closing tag",
        pem + closing
            + QString("\nDIRECTIVE\n<ca>\n%1</ca>\n<cert>\n%2</cert>\n<key>\n%3</key>\n")
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
    add("directive inside the block", "DIRECTIVE\n" + pem, false);
    add("places to fill", "%1%2%3%4%5%6%7\n" + pem, false);
}

void addHostTricks(const Add &add, const VpnServerInformation &good)
{
    const QString remote = QString("%1 %2").arg(good.host).arg(good.udpPort);
    const int rest = kPieceBytes - int(qstrlen("remote ")); // of the first piece
    const auto addBehind = [&](const char *name, const QString &text, bool isInjection) {
        add(name, remote + text, isInjection);
    };
    addBehind("line feed before a directive and a comment", "\nDIRECTIVE\n#", true);
    addBehind("line feed before a directive and a second remote",
              "\nDIRECTIVE\nremote " + good.host, true);
    addBehind("carriage return and line feed", "\r\nDIRECTIVE\r\n#", true);
    addBehind("end of the text after a directive",
              QString("\nDIRECTIVE\n<ca>\n%1</ca>\n<cert>\n%2</cert>\n<key>\n%3</key>\n"
                      "client\ndev tun\nnobind\ncomp-lzo\ntun-mtu-extra 32\n"
                      "cipher AES-256-CBC\nscript-security 2\n")
                      .arg(good.ca, good.cert, good.key)
                  + QChar(0),
              true);

    // OpenVPN 2.6 refuses such a line, other readers would take it apart.
    addBehind("blanks up to the end of the piece",
              padding(rest - remote.size(), ' ') + "DIRECTIVE #", false);
    addBehind("comment up to the end of the piece",
              " #" + padding(rest - remote.size() - 2) + "DIRECTIVE #", false);
    addBehind("carriage return alone", "\rDIRECTIVE\r#", false);
    addBehind("blank and a comment", " #DIRECTIVE", false);
    addBehind("character that only ends in 0x0a", QChar(0x10a) + QString("DIRECTIVE #"), false);
    addBehind("next line (0x85)", QChar(0x85) + QString("DIRECTIVE #"), false);
    addBehind("line separator", QChar(0x2028) + QString("DIRECTIVE #"), false);
    addBehind("vertical tab and form feed", "\v\fDIRECTIVE", false);
    add("quotes", QString("\"%1\" DIRECTIVE").arg(good.host), false);
    add("backslash before the port", good.host + "\\ DIRECTIVE", false);
    add("semicolon", good.host + ";DIRECTIVE", false);
    add("places to fill", "%1%2%3%4%5%6%7", false);
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
    QVector<Record> records;
    const Add add = [&](const char *name, QString text, bool isInjection) {
        text.replace("DIRECTIVE", directive(records.size()));
        VpnServerInformation server = good;
        fieldOf(server, field) = text;
        records.append({name, server, isInjection});
    };
    if (field == fields().first())
        addHostTricks(add, good);
    else
        addBlockTricks(add, field, good);
    return records;
}

} // namespace hostilerecords
