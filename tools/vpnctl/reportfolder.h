#pragma once

#include "report.h"

namespace vpnctl {

/// Makes a folder with what a maintainer asks for. Each file is reported before it is written.
/// @throws Problem when that fails, for example because the folder is there already.
void makeReportFolder(const QString &path, Report &report);

/// @return the text without what may come from a server's record: addresses, host names, and
///         whatever could be a part of a key or a certificate.
QString withoutSecrets(QString text);

} // namespace vpnctl
