/// The two records as they come off the wire: reading any bytes does no harm, and a record that
/// was read goes out and comes back as it is. The first byte chooses the record.

#include "fuzzsupport.h"
#include "operationresult.h"
#include "vpnserverinformation.h"

namespace {

template<typename Record>
QByteArray written(const Record &record)
{
    QByteArray bytes;
    QDataStream stream(&bytes, QIODevice::WriteOnly);
    stream << record;
    return bytes;
}

template<typename Record>
void goRound(const QByteArray &bytes)
{
    Record record;
    QDataStream stream(bytes);
    stream >> record;
    const QByteArray once = written(record);
    Record again;
    QDataStream back(once);
    back >> again;
    if (back.status() != QDataStream::Ok || !back.atEnd())
        fuzz::fail("a record that was written cannot be read");
    if (written(again) != once)
        fuzz::fail("a record changed on its way");
}

} // namespace

void fuzz::run(const QByteArray &input)
{
    if (input.isEmpty() || input.at(0) % 2 == 0)
        goRound<VpnServerInformation>(input.mid(1));
    else
        goRound<OperationResult>(input.mid(1));
}
