namespace lofthaven {}
