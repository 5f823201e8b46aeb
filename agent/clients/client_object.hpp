// The served object "/pps/services/push/ipc", on which applications are connected: each open of it
// by an application is one client.

#pragma once

// Opens the object as its server. The descriptor, or -1. Never closed while the agent runs. When
// only making the object writable for applications failed, -1 is returned although the descriptor
// stays open and in use for replies.
int clientIfInit();

// The descriptor of the served object, -1 when opening it failed. Safe on any thread once
// clientIfInit returned.
int clientDescriptor();
