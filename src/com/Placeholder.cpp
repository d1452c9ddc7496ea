// Replaced by the COM kit sources.
