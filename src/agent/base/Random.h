#pragma once

namespace nimbra {

/// Seeds the process-wide generator with `seed` and draws its next number, 0 to 2147483647, as one
/// step: no other thread's seed or draw comes in between. Any thread.
[[nodiscard]] int SeedAndDraw(unsigned seed);

/// Draws the next number of the process-wide generator, 0 to 2147483647. Any thread.
[[nodiscard]] int Draw();

} // namespace nimbra
