/* The example plug-in's entry points, as its host sees them. Plain C. */
#ifndef JX_EXAMPLE_COMPUTE_PLUGIN_H
#define JX_EXAMPLE_COMPUTE_PLUGIN_H

#ifdef __cplusplus
extern "C" {
#endif

/* Acquires the compute-cache suite, registers the plug-in's class and has `threads` threads ask
 * for the values of `keys` requests each, checking every value. Returns 0 when every value was
 * right and each was computed exactly once; otherwise a non-zero code, after printing why. */
int ExamplePlugin_Run(int threads, int keys);

/* Values computed and not yet deleted (0 once the cache has shut down). */
int ExamplePlugin_LiveValues(void);

#ifdef __cplusplus
}
#endif

#endif /* JX_EXAMPLE_COMPUTE_PLUGIN_H */
