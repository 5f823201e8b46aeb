// Reads what applications ask from the served object, and hands each request to the operation that
// it names. docs/formats/requests.md shows requests as applications write them.

#pragma once

// Reads one request and carries it out. Main thread only. Gives the number of bytes read, -1 when
// the read failed.
int clientPPSMessageGet();

// Decodes the text of one request and calls the operation that it names. Main thread only.
void clientProcessRequest(const char* text);
