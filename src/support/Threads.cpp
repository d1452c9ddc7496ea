// Threads and locks: filled in below.
