// How the program's memory is held.
#pragma once

namespace ossilar::utils {

// From now on memory that was given back goes to the system at once, not after a while. What needs much of it
// now and then is smaller so between; what needs a little all the time is slower. Does nothing with an
// allocator that cannot be told. May be called from any thread, and again.
void return_memory_at_once();

}  // namespace ossilar::utils
