// What is done to a connection with a push sender once its push has been read.

#pragma once

// Ends a connection. Gives the result of close(2).
int serverIfClose(int socket);

// Sends without flags. Gives the result of send(2).
int serverIfSend(int socket, const char* bytes, int length);
