// Registers an application with its push data server and deregisters it: one or two HTTP GETs, a
// return code in the body ("rc=...") and, for a registration, the port for its pushes in a response
// header. docs/formats/registration.md shows the exchange.
//
// The outcome is the message's result code, 0 for success; nothing is retried. Any thread, one at a
// time for one application; each request blocks it until it is over.

#pragma once

#include <string>

#include "agent/messages/reply_messages.hpp"

// On success the application's session has the new port and listens on it.
void processServerRegister(QuilServerRegMessage& message);
void processServerDeregister(QuilServerRegMessage& message);

// The exchange shared by both. Gives the return code of a second answer. Gives -1 when there was
// none, and then the message's result code says why; a one-step answer counts as such, and its
// code, even a good one, becomes the result code. `port` (may be null) takes the port header of the
// second answer.
int processServerSubscribe(QuilServerRegMessage& message, int* port);

// Finds the session and builds the URL. 0, or -1 with result code 10100 when there is no session.
int prepareServerRequest(QuilServerRegMessage& message, std::string* url);

// ppgUrl, path, application id and for a registration OS version and model, joined as they stand:
// nothing is escaped.
void createUrl(const QuilServerRegMessage& message, std::string* url);

// One GET. 0 with the stripped body (at most 8191 bytes) in `response`, or 10103 when the transfer
// failed or its status was not 200; then `response` is left alone. `port` (may be null) takes the
// port header if there is one.
int processRequest(const std::string& url, std::string* response, int* port);

// The number behind the first "rc=" of the text. Without one: -1, and the message gets `errorCode`.
int getReturnCode(QuilServerRegMessage& message, const std::string& text, int errorCode);
