// The engine's portable functions, one by one, for ecc_proofs.py: compiled, never linked.
// Operands and results are arrays of 64-bit digits.
#include "ecc/ecc.cpp"

extern "C" {

uint64_t proved_add(uint64_t* result, const uint64_t* left, const uint64_t* right)
{
    return portable::vli_add(result, left, right);
}

uint64_t proved_sub(uint64_t* result, const uint64_t* left, const uint64_t* right)
{
    return portable::vli_sub(result, left, right);
}

int proved_cmp(const uint64_t* left, const uint64_t* right)
{
    return vli_cmp(left, right);
}

uint64_t proved_lshift(uint64_t* result, const uint64_t* in, uint shift)
{
    return vli_lshift(result, in, shift);
}

void proved_rshift1(uint64_t* result)
{
    vli_rshift1(result);
}

void proved_mul_64_64(uint64_t* result, uint64_t left, uint64_t right)
{
    const uint128_t product = portable::mul_64_64(left, right);
    result[0] = product.m_low;
    result[1] = product.m_high;
}

void proved_add_128_128(uint64_t* result, const uint64_t* left, const uint64_t* right)
{
    const uint128_t sum = portable::add_128_128({left[0], left[1]}, {right[0], right[1]});
    result[0] = sum.m_low;
    result[1] = sum.m_high;
}

void proved_column_add(uint64_t* result, const uint64_t* left, const uint64_t* right)
{
    portable::ColumnSum sum = {{left[0], left[1]}, left[2]};
    portable::column_add(&sum, {right[0], right[1]});
    result[0] = sum.r01.m_low;
    result[1] = sum.r01.m_high;
    result[2] = sum.r2;
}

// The doubled product, then the overflow word.
void proved_column_double(uint64_t* result, const uint64_t* left, const uint64_t* right)
{
    portable::ColumnSum sum = {{left[0], left[1]}, left[2]};
    const uint128_t doubled = portable::column_double(&sum, {right[0], right[1]});
    result[0] = doubled.m_low;
    result[1] = doubled.m_high;
    result[2] = sum.r2;
}

// What is left of the sum, then the digit.
uint64_t proved_column_next(uint64_t* result, const uint64_t* left)
{
    portable::ColumnSum sum = {{left[0], left[1]}, left[2]};
    const uint64_t digit = portable::column_next(&sum);
    result[0] = sum.r01.m_low;
    result[1] = sum.r01.m_high;
    result[2] = sum.r2;
    return digit;
}

void proved_modAdd(uint64_t* result, const uint64_t* left, const uint64_t* right,
                   const uint64_t* mod)
{
    portable::vli_modAdd(result, left, right, mod);
}

void proved_modSub(uint64_t* result, const uint64_t* left, const uint64_t* right,
                   const uint64_t* mod)
{
    portable::vli_modSub(result, left, right, mod);
}

void proved_correct(uint64_t* result, int carry)
{
    portable::correct(result, carry);
}

void proved_mmod_fast(uint64_t* result, const uint64_t* left)
{
    portable::vli_mmod_fast(result, left);
}

} // extern "C"
