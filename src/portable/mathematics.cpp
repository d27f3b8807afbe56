// Functions that glibc gave a new version in 2.29, without the hook of programs for errors. These
// are the ones before.
#ifdef __x86_64__
#define TW_FIRST_GLIBC "GLIBC_2.2.5"
#else
#define TW_FIRST_GLIBC "GLIBC_2.17"
#endif

// The compiler knows these names and has them visible: ours have others until they are assembled.
#define TW_AS(name) __asm__(#name) __attribute__((visibility("hidden")))

extern "C" {

double firstExp(double x);
double firstLog(double x);
double firstLog2(double x);
double firstPow(double x, double y);
__asm__(".symver firstExp, exp@" TW_FIRST_GLIBC);
__asm__(".symver firstLog, log@" TW_FIRST_GLIBC);
__asm__(".symver firstLog2, log2@" TW_FIRST_GLIBC);
__asm__(".symver firstPow, pow@" TW_FIRST_GLIBC);

double hiddenExp(double x) TW_AS(exp);
double hiddenLog(double x) TW_AS(log);
double hiddenLog2(double x) TW_AS(log2);
double hiddenPow(double x, double y) TW_AS(pow);

double hiddenExp(double x) {
  return firstExp(x);
}

double hiddenLog(double x) {
  return firstLog(x);
}

double hiddenLog2(double x) {
  return firstLog2(x);
}

double hiddenPow(double x, double y) {
  return firstPow(x, y);
}
}
