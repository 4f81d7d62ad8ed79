// Tells whoever started a daemon that it serves now.
#pragma once

namespace service {

/// Says READY=1 on the datagram socket that the environment names (NOTIFY_SOCKET), as systemd asks of a service of the
/// type "notify"; a name that begins with "@" is an abstract one. Does nothing where nobody asks. A message that cannot
/// be sent becomes a record: the service manager gives up on the daemon then, and says why.
///
/// Threads: any, while nobody changes the environment.
void TellReady();

}  // namespace service
