// What the sender of a push reads when its application accepted it. docs/formats/acknowledgement.md
// shows the bytes.

#pragma once

// Writes the acknowledgement, dated now in local time, to the sender's connection, which stays open
// and the caller's. A sender that is gone shows in the log only. Any thread.
void sendAcknowledgement(int socket);
