// How the service's managers reach each other. The dependencies between the units of src/ run
// one way; where a lower one must tell a higher one (the device manager that the device situation
// changed, the multiview handler that its route changed, the key handler asking which devices are
// attached), it calls a link that this one function sets up at start-up.
#pragma once

void LinkManagers();
