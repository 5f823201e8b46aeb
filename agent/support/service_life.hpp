// The object service may end and come back while the agent runs. Its connection ids begin anew
// then, so an id means somebody only within the life of the service that gave it out.

#pragma once

// Number of the present life, from 1. Any thread.
int serviceLife();

// The service is gone: what was addressed before belongs to a life that is over. Main thread.
void endServiceLife();
