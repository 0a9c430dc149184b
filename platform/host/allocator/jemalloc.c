/* Settings of jemalloc, which looks for this symbol: unused memory of a burst goes back to the system after a second. */
const char *malloc_conf = "background_thread:true,dirty_decay_ms:1000,muzzy_decay_ms:0";
