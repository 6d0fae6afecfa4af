#include "endpoints.h"

#include "ipcurls.h"

#include <QtCore/QDir>
#include <QtCore/QFileInfo>

#include <algorithm>

namespace vpnctl {

QVector<int> endpointsWithSockets()
{
    const QFileInfo main(shared::getIpcServiceUrl());
    const QString prefix = main.fileName() + QLatin1Char('_');
    QVector<int> endpoints;
    for (const QString &name : main.dir().entryList({prefix + QLatin1Char('*')}, QDir::System))
        endpoints.append(name.mid(prefix.size()).toInt());
    std::sort(endpoints.begin(), endpoints.end());
    return endpoints;
}

} // namespace vpnctl
