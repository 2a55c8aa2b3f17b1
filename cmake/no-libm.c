/* The one function of libm that a program of ours wants, for fmt's digits of floating-point numbers, which no line of
 * ours has, and on some machines for the C++ runtime's hash tables. With it here, a program that is linked against a
 * libm of its own, as glibc has one, need not map that library: 100 kB of resident memory. */

double ceil(double value);

double ceil(double value)
{
    const double whole_from = 4503599627370496.0; /* 2^52: from here on every double is a whole number */
    if (!(value > -whole_from && value < whole_from))
        return value; /* also what is no number */
    const double truncated = (double)(long long)value;
    const double result = truncated < value ? truncated + 1.0 : truncated;
    return result == 0.0 ? __builtin_copysign(0.0, value) : result;
}
