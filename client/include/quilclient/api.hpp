// Marks what the shared library exports. Whatever is without it stays inside.
//
// The soname, libquilclient.so.1, changes when a program that was built against these headers has
// to be built anew: a function or method that goes or takes something else, and any field more or
// less in a struct, since they are passed by value.

#pragma once

#define QUILCLIENT_API __attribute__((visibility("default")))
