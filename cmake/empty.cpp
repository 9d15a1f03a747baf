// The shared library is assembled from the subsystem archives; this file only gives it a source.
