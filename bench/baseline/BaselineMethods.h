#pragma once

#ifdef __cplusplus
extern "C" {
#endif

/// The database work of one method of the agent's DataManager, for the values that the benchmark
/// passes to the method. `turn` counts the calls, for methods that add or delete another row each
/// time.
struct BaselineMethod
{
    const char *Name; ///< of the method; null ends the list
    void (*Run)(int turn);
};

extern const struct BaselineMethod kBaselineMethods[];

#ifdef __cplusplus
}
#endif
