#pragma once

namespace nimbra::fuzz {

/// Has SQLite take its memory from lists of freed blocks, which is much faster than the sanitizer's
/// allocator. The address sanitizer still finds every access of the agent to freed memory and
/// beyond a block: all that is not in use is poisoned, there are 16 bytes of it between two blocks,
/// and a freed block is used again only after 16 others of its size. To be called before SQLite's
/// first use; one thread.
void InstallSqliteMemory();

} // namespace nimbra::fuzz
