// The numbers 1 to 255 are for descriptors that the main loop waits on: select cannot watch others.
// Whatever stays open for long and is never waited on there is moved out of their way.

#pragma once

// The first number of those that are not watched.
constexpr int FIRST_HIGH_DESCRIPTOR = 256;

// Moves a descriptor to a number from FIRST_HIGH_DESCRIPTOR up, close-on-exec, and gives the new
// number. Where there is none to be had it stays what it was. Any thread.
int moveToHighDescriptor(int descriptor);
