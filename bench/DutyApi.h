// An API that does nothing but its duty: takes or fills the bytes, fills the response.
#pragma once

// Objects that every backup query finds from now on, on this thread.
void SetFound(long objects);
