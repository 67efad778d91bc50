// The check an image's guarded calls go through once StrictCfg has enforced on it: it saves what
// the guarded call still needs, hands the target and the call site to
// KestrelHostCheckIndirectCall, restores everything and goes on as the platform's own check does.

#if defined(__arm64ec__) || defined(__aarch64__)
// The call's arguments, x0-x7 and q0-q7, in the frame above the saved fp and lr: op is stp to
// save them, ldp to restore them.
        .macro arguments op
        \op     x0, x1, [sp, #0x10]
        \op     x2, x3, [sp, #0x20]
        \op     x4, x5, [sp, #0x30]
        \op     x6, x7, [sp, #0x40]
        \op     q0, q1, [sp, #0x50]
        \op     q2, q3, [sp, #0x70]
        \op     q4, q5, [sp, #0x90]
        \op     q6, q7, [sp, #0xb0]
        .endm
#endif

#if defined(__arm64ec__)
// Arm64EC: __os_arm64x_check_icall_cfg. The target is in x11 and its exit thunk in x10; the
// platform's check answers in x11 what to call (the exit thunk for x64 code). The call's own
// arguments (x0-x9, q0-q7) and x10 must survive; Arm64EC code never uses x13, x14, x23, x24, x28.
        .text
        .globl  "#KestrelHostGuardCheck"
        .def    "#KestrelHostGuardCheck"; .scl 2; .type 32; .endef
        .p2align 2
"#KestrelHostGuardCheck":
        stp     x29, x30, [sp, #-0xf0]!
        mov     x29, sp
        arguments stp
        stp     x8, x9, [sp, #0xd0]
        stp     x10, x11, [sp, #0xe0]
        mov     x0, x11
        mov     x1, x30
        bl      "#KestrelHostCheckIndirectCall"
        arguments ldp
        ldp     x8, x9, [sp, #0xd0]
        ldp     x10, x11, [sp, #0xe0]
        ldp     x29, x30, [sp], #0xf0
        adrp    x16, kestrelHostPlatformCheck
        ldr     x16, [x16, :lo12:kestrelHostPlatformCheck]
        br      x16

#elif defined(__aarch64__)
// Arm64: __guard_check_icall_fptr. The target is in x15; the call's arguments (x0-x8, q0-q7) must
// survive, and the check returns to the guarded call.
        .text
        .globl  KestrelHostGuardCheck
        .def    KestrelHostGuardCheck; .scl 2; .type 32; .endef
        .p2align 2
KestrelHostGuardCheck:
        stp     x29, x30, [sp, #-0xe0]!
        mov     x29, sp
        arguments stp
        stp     x8, x15, [sp, #0xd0]
        mov     x0, x15
        mov     x1, x30
        bl      KestrelHostCheckIndirectCall
        arguments ldp
        ldp     x8, x15, [sp, #0xd0]
        ldp     x29, x30, [sp], #0xe0
        ret

#elif defined(__x86_64__)
// x64: __guard_dispatch_icall_fptr. The target is in rax, the call's arguments in rcx, rdx, r8,
// r9, xmm0-xmm5 and on the stack above the return address; the dispatch jumps to the target, which
// returns straight to the guarded call.
        .text
        .globl  KestrelHostGuardCheck
        .def    KestrelHostGuardCheck; .scl 2; .type 32; .endef
        .p2align 4
KestrelHostGuardCheck:
        pushq   %rax
        pushq   %rcx
        pushq   %rdx
        pushq   %r8
        pushq   %r9
        pushq   %r10
        pushq   %r11
        subq    $0x80, %rsp             // the callee's home space, then xmm0-xmm5
        movdqa  %xmm0, 0x20(%rsp)
        movdqa  %xmm1, 0x30(%rsp)
        movdqa  %xmm2, 0x40(%rsp)
        movdqa  %xmm3, 0x50(%rsp)
        movdqa  %xmm4, 0x60(%rsp)
        movdqa  %xmm5, 0x70(%rsp)
        movq    %rax, %rcx
        movq    0xb8(%rsp), %rdx        // the return address, above the 7 registers pushed
        callq   KestrelHostCheckIndirectCall
        movdqa  0x20(%rsp), %xmm0
        movdqa  0x30(%rsp), %xmm1
        movdqa  0x40(%rsp), %xmm2
        movdqa  0x50(%rsp), %xmm3
        movdqa  0x60(%rsp), %xmm4
        movdqa  0x70(%rsp), %xmm5
        addq    $0x80, %rsp
        popq    %r11
        popq    %r10
        popq    %r9
        popq    %r8
        popq    %rdx
        popq    %rcx
        popq    %rax
        jmpq    *%rax
#endif
