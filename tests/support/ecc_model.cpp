#include "ecc_model.h"

namespace ecc_model {

static const mpz_class digit_limit = power_of_two(64);
static const mpz_class accumulator_limit = power_of_two(128);
static const mpz_class number_limit = power_of_two(256);

static std::array<mpz_class, 4> digits_of(const mpz_class& value)
{
    std::array<mpz_class, 4> digits;
    for (unsigned i = 0; i < 4; ++i) {
        digits[i] = (value >> (64 * i)) % digit_limit;
    }
    return digits;
}

// An accumulator of 128 bits and an overflow count beside it.
struct Accumulator {
    mpz_class value;
    unsigned overflow = 0;
    bool rare = false;

    // Takes the 129th bit off a number, if it is set.
    static bool cut(mpz_class& number)
    {
        const bool is_over = number >= accumulator_limit;
        if (is_over) {
            number -= accumulator_limit;
        }
        return is_over;
    }

    void add(const mpz_class& partial)
    {
        value += partial;
        const bool is_over = cut(value);
        const bool counted = (value >> 64) < (partial >> 64);
        rare = rare || counted != is_over;
        overflow += counted ? 1 : 0;
    }

    // Takes the lowest digit off.
    mpz_class shift()
    {
        mpz_class lowest = value % digit_limit;
        value >>= 64;
        value += overflow * digit_limit;
        overflow = 0;
        return lowest;
    }
};

mpz_class product(const mpz_class& left, const mpz_class& right, bool* rare)
{
    const std::array<mpz_class, 4> left_digits = digits_of(left);
    const std::array<mpz_class, 4> right_digits = digits_of(right);
    Accumulator sum;
    mpz_class result;
    for (unsigned column = 0; column <= 6; ++column) {
        for (unsigned i = 0; i <= 3; ++i) {
            if (i <= column && column - i <= 3) {
                sum.add(left_digits[i] * right_digits[column - i]);
            }
        }
        result += sum.shift() << (64 * column);
    }
    result += sum.shift() << (64 * 7);
    if (rare != nullptr) {
        *rare = sum.rare;
    }
    return result;
}

mpz_class square(const mpz_class& value, bool* rare)
{
    const std::array<mpz_class, 4> digits = digits_of(value);
    Accumulator sum;
    mpz_class result;
    for (unsigned column = 0; column <= 6; ++column) {
        for (unsigned i = 0; i <= 3; ++i) {
            if (i > column || column - i > 3 || i > column - i) {
                continue;
            }
            mpz_class partial = digits[i] * digits[column - i];
            if (i < column - i) {
                partial *= 2;
                sum.overflow += Accumulator::cut(partial) ? 1 : 0;
            }
            sum.add(partial);
        }
        result += sum.shift() << (64 * column);
    }
    result += sum.shift() << (64 * 7);
    if (rare != nullptr) {
        *rare = sum.rare;
    }
    return result;
}

static mpz_class wrapped(const mpz_class& value)
{
    mpz_class result;
    mpz_fdiv_r_2exp(result.get_mpz_t(), value.get_mpz_t(), 256);
    return result;
}

mpz_class mod_add(const mpz_class& left, const mpz_class& right, const mpz_class& m)
{
    const mpz_class sum = left + right;
    return wrapped(sum >= number_limit || sum >= m ? sum - m : sum);
}

mpz_class mod_sub(const mpz_class& left, const mpz_class& right, const mpz_class& m)
{
    const mpz_class difference = left - right;
    return wrapped(difference < 0 ? difference + m : difference);
}

mpz_class mod_mult(const mpz_class& left, const mpz_class& right, const mpz_class& m)
{
    return product(left, right) % m;
}

mpz_class mod_square(const mpz_class& value)
{
    return square(value) % p;
}

mpz_class mod_inverse(const mpz_class& value, const mpz_class& m)
{
    mpz_class inverse;
    if (mpz_invert(inverse.get_mpz_t(), value.get_mpz_t(), m.get_mpz_t()) == 0) {
        return 0;
    }
    return inverse;
}

mpz_class mod_sqrt(const mpz_class& value)
{
    const mpz_class exponent = p + 1;
    mpz_class root = 1;
    for (unsigned bit = 255; bit >= 2; --bit) {
        root = mod_square(root);
        if (mpz_tstbit(exponent.get_mpz_t(), bit) != 0) {
            root = mod_mult(root, value);
        }
    }
    return root;
}

void double_jacobian(Point& point, mpz_class& z)
{
    if (z == 0) {
        return;
    }
    const mpz_class y_squared = mod_square(point.y);
    const mpz_class xyy = mod_mult(point.x, y_squared);
    const mpz_class y_fourth = mod_square(y_squared);
    const mpz_class new_z = mod_mult(point.y, z);
    const mpz_class z_squared = mod_square(z);
    const mpz_class plus = mod_add(point.x, z_squared);
    const mpz_class minus = mod_sub(plus, mod_add(z_squared, z_squared));
    const mpz_class once = mod_mult(plus, minus);
    const mpz_class three_times = mod_add(once, mod_add(once, once));
    const bool odd = mpz_odd_p(three_times.get_mpz_t()) != 0;
    const mpz_class half = (odd ? mpz_class(three_times + p) : three_times) / 2;
    const mpz_class new_x = mod_sub(mod_sub(mod_square(half), xyy), xyy);
    point.y = mod_sub(mod_mult(half, mod_sub(xyy, new_x)), y_fourth);
    point.x = new_x;
    z = new_z;
}

void apply_z(Point& point, const mpz_class& z)
{
    const mpz_class z_squared = mod_square(z);
    point.x = mod_mult(point.x, z_squared);
    point.y = mod_mult(point.y, mod_mult(z_squared, z));
}

void add(Point& first, Point& second)
{
    const mpz_class a = mod_square(mod_sub(second.x, first.x));
    const mpz_class first_x = mod_mult(first.x, a);
    const mpz_class k = mod_mult(second.x, a);
    const mpz_class rise = mod_sub(second.y, first.y);
    const mpz_class x = mod_sub(mod_sub(mod_square(rise), first_x), k);
    const mpz_class first_y = mod_mult(first.y, mod_sub(k, first_x));
    const mpz_class y = mod_sub(mod_mult(rise, mod_sub(first_x, x)), first_y);
    first = {first_x, first_y};
    second = {x, y};
}

void conjugate_add(Point& first, Point& second)
{
    const mpz_class a = mod_square(mod_sub(second.x, first.x));
    const mpz_class first_x = mod_mult(first.x, a);
    const mpz_class k = mod_mult(second.x, a);
    const mpz_class total = mod_add(second.y, first.y);
    const mpz_class rise = mod_sub(second.y, first.y);
    const mpz_class first_y = mod_mult(first.y, mod_sub(k, first_x));
    const mpz_class both = mod_add(first_x, k);
    const mpz_class sum_x = mod_sub(mod_square(rise), both);
    const mpz_class sum_y = mod_sub(mod_mult(rise, mod_sub(first_x, sum_x)), first_y);
    const mpz_class difference_x = mod_sub(mod_square(total), both);
    const mpz_class difference_y =
        mod_sub(mod_mult(mod_sub(difference_x, first_x), total), first_y);
    first = {difference_x, difference_y};
    second = {sum_x, sum_y};
}

Point scalar_mult(const Point& point, const mpz_class& scalar, const mpz_class& initial_z)
{
    Point registers[2] = {point, point};
    mpz_class z = initial_z;
    apply_z(registers[1], z);
    double_jacobian(registers[1], z);
    apply_z(registers[0], z);

    const size_t bits = scalar == 0 ? 0 : mpz_sizeinbase(scalar.get_mpz_t(), 2);
    for (size_t bit = bits < 2 ? 0 : bits - 2; bit > 0; --bit) {
        const int set = mpz_tstbit(scalar.get_mpz_t(), bit);
        conjugate_add(registers[set], registers[1 - set]);
        add(registers[1 - set], registers[set]);
    }
    const int set = mpz_tstbit(scalar.get_mpz_t(), 0);
    conjugate_add(registers[set], registers[1 - set]);

    z = mod_mult(mod_sub(registers[1].x, registers[0].x), registers[set].y);
    z = mod_inverse(mod_mult(z, point.x));
    z = mod_mult(mod_mult(z, point.y), registers[set].x);

    add(registers[1 - set], registers[set]);
    apply_z(registers[0], z);
    return registers[0];
}

Point decompress(const Bytes& public_key)
{
    Point point;
    point.x = integer(Bytes(public_key.begin() + 1, public_key.begin() + 33));
    if (public_key[0] == 4) {
        point.y = integer(Bytes(public_key.begin() + 33, public_key.begin() + 65));
        return point;
    }
    const mpz_class slope = mod_sub(mod_square(point.x), 3);
    point.y = mod_sqrt(mod_add(mod_mult(slope, point.x), b));
    const bool odd = mpz_odd_p(point.y.get_mpz_t()) != 0;
    if (odd != (public_key[0] % 2 == 1)) {
        point.y = p - point.y;
    }
    return point;
}

// The point that two bits ask for, none for two zeros.
static std::optional<Point> table_entry(const mpz_class& u1, const mpz_class& u2, size_t bit,
                                        const Point& q, const Point& sum)
{
    const bool first = mpz_tstbit(u1.get_mpz_t(), bit) != 0;
    const bool second = mpz_tstbit(u2.get_mpz_t(), bit) != 0;
    if (first && second) {
        return sum;
    }
    if (first || second) {
        return first ? base : q;
    }
    return std::nullopt;
}

Point mult_two(const mpz_class& u1, const mpz_class& u2, const Point& q)
{
    Point base_copy = base;
    Point sum = q;
    const mpz_class difference = mod_sub(q.x, base.x);
    add(base_copy, sum);
    apply_z(sum, mod_inverse(difference));

    size_t bit = mpz_sizeinbase(mpz_class(u1 | u2).get_mpz_t(), 2) - 1;
    Point point = *table_entry(u1, u2, bit, q, sum);
    mpz_class z = 1;
    while (bit-- > 0) {
        double_jacobian(point, z);
        if (std::optional<Point> entry = table_entry(u1, u2, bit, q, sum)) {
            apply_z(*entry, z);
            const mpz_class t = mod_sub(point.x, entry->x);
            add(*entry, point);
            z = mod_mult(z, t);
        }
    }
    apply_z(point, mod_inverse(z));
    return point;
}

// The candidates in `draws` that come to be used, in order: at most sixteen are tried, and zeros
// among them are passed over.
static std::vector<mpz_class> candidates(const std::vector<mpz_class>& draws)
{
    std::vector<mpz_class> result;
    for (size_t i = 0; i < draws.size() && i < 16; ++i) {
        if (draws[i] != 0) {
            result.push_back(draws[i] >= n ? mpz_class(draws[i] - n) : draws[i]);
        }
    }
    return result;
}

std::optional<KeyPair> make_key(const std::vector<mpz_class>& draws)
{
    for (const mpz_class& d : candidates(draws)) {
        const Point q = scalar_mult(base, d);
        if (q.x != 0 || q.y != 0) {
            const bool odd = mpz_odd_p(q.y.get_mpz_t()) != 0;
            return KeyPair{Bytes{static_cast<uint8_t>(odd ? 3 : 2)} + bytes(q.x), bytes(d)};
        }
    }
    return std::nullopt;
}

std::optional<Bytes> sign(const Bytes& private_key, const Bytes& hash,
                          const std::vector<mpz_class>& draws)
{
    for (const mpz_class& k : candidates(draws)) {
        const mpz_class x = scalar_mult(base, k).x;
        const mpz_class r = x >= n ? mpz_class(x - n) : x;
        if (r != 0) {
            const mpz_class rd = mod_mult(r, integer(private_key), n);
            const mpz_class s = mod_mult(mod_add(integer(hash), rd, n), mod_inverse(k, n), n);
            return bytes(r) + bytes(s);
        }
    }
    return std::nullopt;
}

Point shared_point(const Bytes& public_key, const Bytes& private_key, const mpz_class& initial_z)
{
    return scalar_mult(decompress(public_key), integer(private_key), initial_z);
}

bool verify(const Bytes& public_key, const Bytes& hash, const Bytes& signature)
{
    const Point q = decompress(public_key);
    const mpz_class r = integer(Bytes(signature.begin(), signature.begin() + 32));
    const mpz_class s = integer(Bytes(signature.begin() + 32, signature.end()));
    if (r == 0 || s == 0 || r >= n || s >= n) {
        return false;
    }
    const mpz_class w = mod_inverse(s, n);
    const mpz_class x = mult_two(mod_mult(integer(hash), w, n), mod_mult(r, w, n), q).x;
    return (x >= n ? mpz_class(x - n) : x) == r;
}

} // namespace ecc_model
