// The number of processors that the library is told; 0: the machine's.
#pragma once

extern int told_processors;
