// nimbra-container: runs a command with the rights that an ordinary container gives to root, so
// that what works there can be tried on any machine. Of the capabilities only the usual ones are
// left, and a filter refuses namespaces and mounts.

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include <linux/audit.h>
#include <linux/capability.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

#if defined(__x86_64__)
constexpr std::uint32_t kArchitecture = AUDIT_ARCH_X86_64;
#elif defined(__aarch64__)
constexpr std::uint32_t kArchitecture = AUDIT_ARCH_AARCH64;
#elif defined(__arm__)
constexpr std::uint32_t kArchitecture = AUDIT_ARCH_ARM;
#else
#error "the number of this architecture is not known"
#endif

/// What container engines leave to root.
constexpr std::array kCapabilities = {
    CAP_CHOWN,   CAP_DAC_OVERRIDE, CAP_FSETID,           CAP_FOWNER,     CAP_MKNOD,
    CAP_NET_RAW, CAP_SETGID,       CAP_SETUID,           CAP_SETFCAP,    CAP_SETPCAP,
    CAP_KILL,    CAP_AUDIT_WRITE,  CAP_NET_BIND_SERVICE, CAP_SYS_CHROOT,
};

constexpr std::array<std::uint32_t, 13> kRefused = {
    SYS_unshare,    SYS_setns,         SYS_mount,   SYS_umount2, SYS_pivot_root,
    SYS_fsopen,     SYS_fsconfig,      SYS_fsmount, SYS_fspick,  SYS_open_tree,
    SYS_move_mount, SYS_mount_setattr, SYS_quotactl};

constexpr std::uint32_t kNamespaceFlags = CLONE_NEWNS | CLONE_NEWCGROUP | CLONE_NEWUTS |
                                          CLONE_NEWIPC | CLONE_NEWUSER | CLONE_NEWPID |
                                          CLONE_NEWNET;

constexpr sock_filter Load(std::size_t offset)
{
    return BPF_STMT(BPF_LD | BPF_W | BPF_ABS, static_cast<std::uint32_t>(offset));
}

constexpr sock_filter Return(std::uint32_t action)
{
    return BPF_STMT(BPF_RET | BPF_K, action);
}

/// Skips the next instruction unless the loaded value is this one.
constexpr sock_filter UnlessEqual(std::uint32_t value)
{
    return BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, value, 0, 1);
}

bool InstallFilter()
{
    constexpr std::uint32_t kNotPermitted = SECCOMP_RET_ERRNO | EPERM;
    constexpr std::uint32_t kUnknown = SECCOMP_RET_ERRNO | ENOSYS;
    std::array<sock_filter, 12 + 2 * kRefused.size()> code = {{
        Load(offsetof(seccomp_data, arch)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, kArchitecture, 1, 0),
        Return(kUnknown),
        Load(offsetof(seccomp_data, nr)),
        // Its flags are in memory, where a filter cannot read them: the C library then uses clone.
        UnlessEqual(SYS_clone3),
        Return(kUnknown),
    }};
    std::size_t size = 6;
    for (const std::uint32_t refused : kRefused) {
        code[size++] = UnlessEqual(refused);
        code[size++] = Return(kNotPermitted);
    }
    code[size++] = BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_clone, 1, 0);
    code[size++] = Return(SECCOMP_RET_ALLOW);
    // The lower half of the flags, on machines that store it first.
    code[size++] = Load(offsetof(seccomp_data, args));
    code[size++] = BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, kNamespaceFlags, 0, 1);
    code[size++] = Return(kNotPermitted);
    code[size++] = Return(SECCOMP_RET_ALLOW);
    const sock_fprog program = {static_cast<unsigned short>(size), code.data()};
    return prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

/// Leaves the usual capabilities to the command, which gets what is in the bounding set.
bool DropCapabilities()
{
    for (int capability = 0; prctl(PR_CAPBSET_READ, capability) >= 0; ++capability) {
        const bool isKept = std::find(kCapabilities.begin(), kCapabilities.end(), capability) !=
                            kCapabilities.end();
        if (!isKept && prctl(PR_CAPBSET_DROP, capability) != 0)
            return false;
    }
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3> sets = {};
    if (syscall(SYS_capget, &header, sets.data()) != 0)
        return false;
    for (__user_cap_data_struct &set : sets)
        set.inheritable = 0;
    return syscall(SYS_capset, &header, sets.data()) == 0;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 2) {
        std::fputs("Usage: nimbra-container COMMAND [ARGUMENTS...]\n"
                   "Runs a command with the rights of root in an ordinary container: without\n"
                   "CAP_SYS_ADMIN and CAP_NET_ADMIN, without namespaces and mounts. Needs root.\n",
                   stderr);
        return 125;
    }
    if (!InstallFilter() || !DropCapabilities()) {
        std::fprintf(stderr, "nimbra-container: rights cannot be dropped: %s\n",
                     std::strerror(errno));
        return 125;
    }
    execvp(argv[1], argv + 1);
    std::fprintf(stderr, "nimbra-container: %s: %s\n", argv[1], std::strerror(errno));
    return errno == ENOENT ? 127 : 126;
}
