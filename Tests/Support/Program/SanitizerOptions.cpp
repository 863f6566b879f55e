// An allocator under a sanitizer answers a request that no memory can meet as the system's own does.

extern "C" {
const char* __asan_default_options();
const char* __tsan_default_options();
const char* __asan_default_options() { return "allocator_may_return_null=1"; }
const char* __tsan_default_options() { return "allocator_may_return_null=1"; }
}
