#pragma once

// The three standard descriptors of a program that was started without some of them.
//
// Threads: the main thread, before anything is opened.

namespace tarnctl {

// Gives each of the descriptors 0, 1 and 2 that is closed to something that can be neither read
// nor written. Else the next file that is opened would have its number, and output would go into
// that file.
void OccupyStandardDescriptors();

}  // namespace tarnctl
