# void host_sycl_switch_stack(void** save, void* load)
# Keeps the callee-saved registers on the current stack, stores its top in *save and goes on from the top in `load`.
# The floating-point control words are the thread's and stay.
        .text
        .globl  host_sycl_switch_stack
        .hidden host_sycl_switch_stack
        .type   host_sycl_switch_stack, @function
host_sycl_switch_stack:
        endbr64
        pushq   %rbp
        pushq   %rbx
        pushq   %r12
        pushq   %r13
        pushq   %r14
        pushq   %r15
        movq    %rsp, (%rdi)
        movq    %rsi, %rsp
        popq    %r15
        popq    %r14
        popq    %r13
        popq    %r12
        popq    %rbx
        popq    %rbp
        ret
        .size   host_sycl_switch_stack, .-host_sycl_switch_stack
        .section .note.GNU-stack,"",@progbits
