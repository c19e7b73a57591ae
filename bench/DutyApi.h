// An API that does only what it must: it takes or fills the bytes and fills the response.
#pragma once

namespace bench {

// Objects that every backup query finds from now on, on this thread.
void SetFound(long objects);

}  // namespace bench
