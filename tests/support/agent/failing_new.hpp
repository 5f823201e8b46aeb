// Memory that runs out on demand.

#pragma once

// The next `new` of this thread throws, once. In programs that compile failing_new.cpp in.
extern thread_local bool t_failsNextNew;
