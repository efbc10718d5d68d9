/* A minimal shared library that the loader tests open and call. */
#if defined(_WIN32)
#define TEST_MODULE_EXPORT __declspec(dllexport)
#else
#define TEST_MODULE_EXPORT __attribute__((visibility("default")))
#endif

TEST_MODULE_EXPORT int tovra_test_module_add(int a, int b) { return a + b; }
