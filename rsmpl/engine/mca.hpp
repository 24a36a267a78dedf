// Marks for the static cost estimate (scripts/arm-cost.sh). A build with
// RSMPL_MCA defined brackets each kernel's hot loop body with llvm-mca region
// comments whose name carries what one pass of the loop does, so the script
// turns llvm-mca's cycles per iteration into cycles per output without a
// table of its own:
//
//   RSMPL_MCA_BEGIN("up1to3", 8, 16)  ->  # LLVM-MCA-BEGIN up1to3:8:16
//                    kernel   |  multiply-accumulates per output (0: none)
//                             outputs per pass of the loop
//
// Kernel names start with up, down, sinc or linear. Every other build gets
// nothing: the marks must never change the code that ships.
#pragma once

#if defined(RSMPL_MCA)
#define RSMPL_MCA_BEGIN(name, outs, macs) \
    asm volatile("# LLVM-MCA-BEGIN " name ":%c0:%c1" ::"i"(outs), "i"(macs))
#define RSMPL_MCA_END(name, outs, macs) asm volatile("# LLVM-MCA-END " name ":%c0:%c1" ::"i"(outs), "i"(macs))
#else
#define RSMPL_MCA_BEGIN(name, outs, macs) ((void)0)
#define RSMPL_MCA_END(name, outs, macs) ((void)0)
#endif
