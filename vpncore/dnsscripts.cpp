#include "dnsscripts.h"

// The texts go to bash as they stand: their blanks, their unused variables and their blank last
// line are wanted. The "#!" line is a comment to bash, since it does not begin the text.

#include <QtCore/QDir>

namespace vpncore {

bool hasDnsBackups()
{
    const QDir folder(QStringLiteral("/var/root/Library/Preferences/talvexvpnd/data"));
    return !folder
                .entryList({QStringLiteral("TalvexFreeVPN_dns_*"),
                            QStringLiteral("TalvexFreeVPN_domain_*")},
                           QDir::Files | QDir::Hidden)
                .isEmpty();
}

QString dnsRestoreScript()
{
    return QStringLiteral(R"SCRIPT(
  #!/bin/bash
  export PATH="/bin:/sbin:/usr/sbin:/usr/bin"

  NMSRVRS=()
  SRCHS=()
  # Get adapter list
  IFS=$'\n' read -d '' -ra adapters < <(networksetup -listallnetworkservices |grep -v denotes) || true

  if [ "$domain" == "" ]; then
      domain="TalvexFreeVPN"
  fi

  for adapter in "${adapters[@]}"
  do
      if [ -e /var/root/Library/Preferences/talvexvpnd/data/TalvexFreeVPN_dns_"$adapter" ]; then
      networksetup -setdnsservers "$adapter" `cat /var/root/Library/Preferences/talvexvpnd/data/TalvexFreeVPN_dns_"$adapter"`
      rm -f /var/root/Library/Preferences/talvexvpnd/data/TalvexFreeVPN_dns_"$adapter"
      fi

      if [ -e /var/root/Library/Preferences/talvexvpnd/data/TalvexFreeVPN_domain_"$adapter" ]; then
      networksetup -setsearchdomains "$adapter" `cat /var/root/Library/Preferences/talvexvpnd/data/TalvexFreeVPN_domain_"$adapter"`
      rm -f /var/root/Library/Preferences/talvexvpnd/data/TalvexFreeVPN_domain_"$adapter"
      fi
  done

   )SCRIPT");
}

QString dnsListingScript()
{
    return QStringLiteral(R"SCRIPT(
  #!/bin/bash
  export PATH="/bin:/sbin:/usr/sbin:/usr/bin"

  NMSRVRS=()
  SRCHS=()
  # Get adapter list
  IFS=$'\n' read -d '' -ra adapters < <(networksetup -listallnetworkservices |grep -v denotes) || true

space=" |'"

for adapter in "${adapters[@]}"
        do

            OLDDNS=$(networksetup -getdnsservers "$adapter")
            OLDDOMAIN=$(networksetup -getsearchdomains "$adapter") || true
            if [[ $OLDDNS =~ ^[0-9]+\.[0-9]+\.[0-9]+\.[0-9]+$ ]]; then
                echo "$OLDDNS"
            fi
done

   )SCRIPT");
}

QString dnsClearingScript()
{
    return QStringLiteral(R"SCRIPT(
  #!/bin/bash
  export PATH="/bin:/sbin:/usr/sbin:/usr/bin"

  NMSRVRS=()
  SRCHS=()
  # Get adapter list
  IFS=$'\n' read -d '' -ra adapters < <(networksetup -listallnetworkservices |grep -v denotes) || true

  if [ "$domain" == "" ]; then
      domain="TalvexFreeVPN"
  fi

  for adapter in "${adapters[@]}"
  do
      networksetup -setdnsservers "$adapter" "Empty"
      networksetup -setsearchdomains "$adapter" "Empty"
  done

   )SCRIPT");
}

} // namespace vpncore
