#pragma once

/// How many allocations of new still succeed in this process; none fails while it is negative.
extern long g_memory_left;
