// Services of the test's own, on a machine that looks as if systemd did not run.
#pragma once

#include <string>
#include <vector>

namespace orbisk::test {

/// Covers /etc and /run in a private mount namespace and makes the machine have no service. Services of an earlier test
/// are ended; a process that is none, whose number stands in a service's file, is not. Call it from the main thread.
/// False where the machine does not allow it.
bool MakePrivateServices();

/// Describes a service in /etc/nimo/services.d. After MakePrivateServices.
void DescribeService(const std::string& name, const std::vector<std::string>& command, bool notifies = false);

/// The process number that stands in the service's file, 0 for none.
int ServiceProcess(const std::string& name);

/// Whether a process lives; one that ended and that nobody has waited for yet does not.
bool DoesProcessLive(int process);

/// Whether the process of a service lives.
bool IsDescribedServiceRunning(const std::string& name);

}  // namespace orbisk::test
