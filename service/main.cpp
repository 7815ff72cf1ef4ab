// dorvane.exe: runs only as the service "WWAN Dorvane". Started from a command
// prompt the dispatcher call fails and the process ends with 0, silently.
#include "service/service_host.h"

int main() { return dorvane::RunServiceProcess(); }
