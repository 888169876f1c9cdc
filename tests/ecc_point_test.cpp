// The engine's points: formulas, scalar multiplication and byte forms, against OpenSSL where they
// are points of the curve and against the model of the steps where they are degenerate.

#include "../ecc/ecc.cpp"

#include "support/ecc_model.h"
#include "support/ecc_openssl.h"

#include <gtest/gtest.h>

namespace {

#ifdef ZENTRAVA_TAKES_FEW_OPERANDS
constexpr int FORMULA_ROUNDS = 100;
constexpr int MULT_ROUNDS = 30;
#else
constexpr int FORMULA_ROUNDS = 1000;
constexpr int MULT_ROUNDS = 300;
#endif
constexpr int MODEL_ROUNDS = 20; // of a whole multiplication in the model

const mpz_class& p = ecc_model::p;
const mpz_class& n = ecc_model::n;

// A point in its uncompressed byte form, and back.
Bytes uncompressed(const mpz_class& x, const mpz_class& y)
{
    return Bytes{4} + bytes(x) + bytes(y);
}

ecc_model::Point coordinates(const Bytes& form)
{
    return {integer(Bytes(form.begin() + 1, form.begin() + 33)),
            integer(Bytes(form.begin() + 33, form.end()))};
}

EccPoint engine_point(const ecc_model::Point& point)
{
    EccPoint result = {};
    vli_set(result.x, digits(point.x).data());
    vli_set(result.y, digits(point.y).data());
    return result;
}

Digits number(const uint64_t* p_vli)
{
    Digits result = {};
    std::copy(p_vli, p_vli + 4, result.begin());
    return result;
}

ecc_model::Point model_point(const EccPoint& point)
{
    return {integer(number(point.x)), integer(number(point.y))};
}

Bytes random_point()
{
    return openssl_base_mult(random_below(n - 1) + 1);
}

mpz_class random_z()
{
    return random_below(p - 1) + 1;
}

// The field's arithmetic without the engine's steps.
mpz_class modulo_p(const mpz_class& value)
{
    mpz_class result;
    mpz_fdiv_r(result.get_mpz_t(), value.get_mpz_t(), p.get_mpz_t());
    return result;
}

ecc_model::Point with_z(const ecc_model::Point& affine, const mpz_class& z)
{
    return {modulo_p(affine.x * z * z), modulo_p(affine.y * z * z * z)};
}

ecc_model::Point without_z(const ecc_model::Point& point, const mpz_class& z)
{
    return with_z(point, ecc_model::mod_inverse(modulo_p(z)));
}

EccPoint mult(const EccPoint& point, const mpz_class& scalar, const Digits* initial_z = nullptr)
{
    EccPoint result = {};
    EccPoint_mult(&result, &point, digits(scalar).data(),
                  initial_z == nullptr ? nullptr : initial_z->data());
    return result;
}

void expect_multiple(const Bytes& expected, const EccPoint& result)
{
    ASSERT_EQ(expected.size(), 65U);
    EXPECT_TRUE(coordinates(expected) == model_point(result));
}

EccPoint decompress(const Bytes& form)
{
    EccPoint point = {};
    ecc_point_decompress(&point, form.data());
    return point;
}

} // namespace

namespace ecc_model {
static void PrintTo(const Point& point, std::ostream* out)
{
    *out << "(" << point.x.get_str(16) << ", " << point.y.get_str(16) << ")";
}
} // namespace ecc_model

TEST(CurveConstants, AreThoseOfP256)
{
    const std::array<mpz_class, 6> curve = openssl_curve();
    EXPECT_EQ(integer(number(curve_p)), curve[0]);
    EXPECT_EQ(curve[0] - 3, curve[1]);
    EXPECT_EQ(integer(number(curve_b)), curve[2]);
    EXPECT_EQ(integer(number(curve_n)), curve[3]);
    EXPECT_EQ(integer(number(curve_G.x)), curve[4]);
    EXPECT_EQ(integer(number(curve_G.y)), curve[5]);
}

TEST(PointIsZero, NeedsBothCoordinatesZero)
{
    EccPoint point = {};
    EXPECT_EQ(EccPoint_isZero(&point), 1);
    point.x[3] = 1;
    EXPECT_EQ(EccPoint_isZero(&point), 0);
    point = {};
    point.y[2] = 1;
    EXPECT_EQ(EccPoint_isZero(&point), 0);
    EXPECT_EQ(EccPoint_isZero(&curve_G), 0);
}

TEST(JacobianDoubling, GivesTwiceThePoint)
{
    for (int round = 0; round < FORMULA_ROUNDS; ++round) {
        const Bytes form = random_point();
        const mpz_class z = random_z();
        EccPoint point = engine_point(with_z(coordinates(form), z));
        Digits new_z = digits(z);
        EccPoint_double_jacobian(point.x, point.y, new_z.data());
        ASSERT_EQ(without_z(model_point(point), integer(new_z)),
                  coordinates(openssl_add(form, form)));
    }
}

TEST(JacobianDoubling, FollowsItsStepsForAnyNumbers)
{
    for (int round = 0; round < FORMULA_ROUNDS; ++round) {
        ecc_model::Point expected = {integer(corner_biased_digits<Digits>()),
                                     integer(corner_biased_digits<Digits>())};
        mpz_class expected_z = integer(corner_biased_digits<Digits>());
        EccPoint point = engine_point(expected);
        Digits z = digits(expected_z);
        EccPoint_double_jacobian(point.x, point.y, z.data());
        ecc_model::double_jacobian(expected, expected_z);
        ASSERT_EQ(model_point(point), expected);
        ASSERT_EQ(integer(z), expected_z);
    }
}

TEST(JacobianDoubling, LeavesThePointAtInfinityAsItIs)
{
    EccPoint point = curve_G;
    Digits z = {};
    EccPoint_double_jacobian(point.x, point.y, z.data());
    EXPECT_EQ(model_point(point), ecc_model::base);
    EXPECT_EQ(z, Digits{});
}

TEST(ApplyZ, MultipliesByItsSquareAndItsCube)
{
    for (int round = 0; round < FORMULA_ROUNDS; ++round) {
        const ecc_model::Point start = {random_below(p), random_below(p)};
        const mpz_class z = random_below(p);
        EccPoint point = engine_point(start);
        apply_z(point.x, point.y, digits(z).data());
        ASSERT_EQ(model_point(point), with_z(start, z));
    }
}

TEST(InitialDouble, GivesThePointAndItsDoubleWithOneZ)
{
    for (int round = 0; round < FORMULA_ROUNDS; ++round) {
        const Bytes form = random_point();
        const ecc_model::Point affine = coordinates(form);
        const mpz_class initial_z = round % 2 == 0 ? random_z() : mpz_class(1);
        const Digits given_z = digits(initial_z);
        EccPoint twice = engine_point(affine);
        EccPoint once = {};
        XYcZ_initial_double(twice.x, twice.y, once.x, once.y,
                            round % 2 == 0 ? given_z.data() : nullptr);

        // Doubling (x z^2, y z^3, z) makes the new Z = 1 * y z^3 * z.
        const mpz_class z = affine.y * initial_z * initial_z * initial_z * initial_z;
        ASSERT_EQ(without_z(model_point(twice), z), coordinates(openssl_add(form, form)));
        ASSERT_EQ(without_z(model_point(once), z), affine);
    }
}

TEST(CoZAddition, GivesTheSumAndTheFirstPointWithItsZ)
{
    for (int round = 0; round < FORMULA_ROUNDS; ++round) {
        const Bytes left = random_point();
        const Bytes right = random_point();
        const mpz_class z = random_z();
        const ecc_model::Point first = with_z(coordinates(left), z);
        const ecc_model::Point second = with_z(coordinates(right), z);
        EccPoint in_first = engine_point(first);
        EccPoint in_second = engine_point(second);
        XYcZ_add(in_first.x, in_first.y, in_second.x, in_second.y);

        const mpz_class new_z = z * (second.x - first.x);
        ASSERT_EQ(without_z(model_point(in_first), new_z), coordinates(left));
        ASSERT_EQ(without_z(model_point(in_second), new_z), coordinates(openssl_add(left, right)));
    }
}

TEST(CoZAddition, FollowsItsStepsForAnyNumbers)
{
    for (int round = 0; round < FORMULA_ROUNDS; ++round) {
        ecc_model::Point first = {integer(corner_biased_digits<Digits>()),
                                  integer(corner_biased_digits<Digits>())};
        ecc_model::Point second = {round % 10 == 0 ? first.x : random_below(power_of_two(256)),
                                   integer(corner_biased_digits<Digits>())};
        EccPoint in_first = engine_point(first);
        EccPoint in_second = engine_point(second);
        XYcZ_add(in_first.x, in_first.y, in_second.x, in_second.y);
        ecc_model::add(first, second);
        ASSERT_EQ(model_point(in_first), first);
        ASSERT_EQ(model_point(in_second), second);
    }
}

TEST(ConjugateAddition, GivesDifferenceAndSumWithOneZ)
{
    for (int round = 0; round < FORMULA_ROUNDS; ++round) {
        const Bytes left = random_point();
        const Bytes right = random_point();
        const ecc_model::Point right_point = coordinates(right);
        const Bytes negative = uncompressed(right_point.x, p - right_point.y);
        const mpz_class z = random_z();
        const ecc_model::Point first = with_z(coordinates(left), z);
        const ecc_model::Point second = with_z(right_point, z);
        EccPoint in_first = engine_point(first);
        EccPoint in_second = engine_point(second);
        XYcZ_addC(in_first.x, in_first.y, in_second.x, in_second.y);

        const mpz_class new_z = z * (second.x - first.x);
        ASSERT_EQ(without_z(model_point(in_first), new_z),
                  coordinates(openssl_add(left, negative)));
        ASSERT_EQ(without_z(model_point(in_second), new_z), coordinates(openssl_add(left, right)));
    }
}

TEST(ConjugateAddition, FollowsItsStepsForAnyNumbers)
{
    for (int round = 0; round < FORMULA_ROUNDS; ++round) {
        ecc_model::Point first = {integer(corner_biased_digits<Digits>()),
                                  integer(corner_biased_digits<Digits>())};
        ecc_model::Point second = {round % 10 == 0 ? first.x : random_below(power_of_two(256)),
                                   integer(corner_biased_digits<Digits>())};
        EccPoint in_first = engine_point(first);
        EccPoint in_second = engine_point(second);
        XYcZ_addC(in_first.x, in_first.y, in_second.x, in_second.y);
        ecc_model::conjugate_add(first, second);
        ASSERT_EQ(model_point(in_first), first);
        ASSERT_EQ(model_point(in_second), second);
    }
}

TEST(ScalarMult, IsTheMultipleForRandomScalarsAndPoints)
{
    for (int round = 0; round < MULT_ROUNDS; ++round) {
        const Bytes point = random_point();
        const mpz_class scalar = random_below(n - 4) + 2;
        expect_multiple(openssl_mult(scalar, point),
                        mult(engine_point(coordinates(point)), scalar));
    }
}

TEST(ScalarMult, IsTheMultipleForScalarsOfEveryLength)
{
    for (unsigned length = 2; length <= 255; ++length) {
        const mpz_class power = power_of_two(length - 1);
        for (const mpz_class& scalar :
             {power, mpz_class(2 * power - 1), mpz_class(power + random_below(power))}) {
            expect_multiple(openssl_base_mult(scalar), mult(curve_G, scalar));
        }
    }
}

TEST(ScalarMult, IsTheMultipleForSmallScalars)
{
    for (unsigned scalar = 2; scalar <= 64; ++scalar) {
        expect_multiple(openssl_base_mult(scalar), mult(curve_G, scalar));
    }
}

TEST(ScalarMult, IsTheMultipleForGreatScalars)
{
    for (unsigned below = 2; below <= 64; ++below) {
        expect_multiple(openssl_base_mult(n - below), mult(curve_G, n - below));
    }
}

TEST(ScalarMult, IsTheSameWithEveryInitialZ)
{
    for (int round = 0; round < MULT_ROUNDS; ++round) {
        const EccPoint point = engine_point(coordinates(random_point()));
        const mpz_class scalar = random_below(n - 4) + 2;
        const Digits small = {static_cast<uint64_t>(round) + 1};
        const Digits great = digits(p - 1 - round);
        const Digits any = digits(random_z());
        const Digits beyond_p = digits(p + 1 + round);
        const ecc_model::Point expected = model_point(mult(point, scalar));
        ASSERT_EQ(model_point(mult(point, scalar, &small)), expected);
        ASSERT_EQ(model_point(mult(point, scalar, &great)), expected);
        ASSERT_EQ(model_point(mult(point, scalar, &any)), expected);
        ASSERT_EQ(model_point(mult(point, scalar, &beyond_p)), expected);
    }
}

TEST(ScalarMult, OfAnInitialZOfZeroIsTheZeroPoint)
{
    const Digits zero = {};
    const EccPoint result = mult(curve_G, 12345, &zero);
    EXPECT_EQ(EccPoint_isZero(&result), 1);
}

TEST(ScalarMult, GivesTwiceThePointForTheScalarZero)
{
    for (int round = 0; round < MULT_ROUNDS; ++round) {
        const Bytes point = random_point();
        expect_multiple(openssl_mult(2, point), mult(engine_point(coordinates(point)), 0));
    }
}

TEST(ScalarMult, GivesThreeTimesThePointForTheScalarOne)
{
    for (int round = 0; round < MULT_ROUNDS; ++round) {
        const Bytes point = random_point();
        expect_multiple(openssl_mult(3, point), mult(engine_point(coordinates(point)), 1));
    }
}

TEST(ScalarMult, GivesTheZeroPointForTheOrderLessOne)
{
    for (int round = 0; round < MULT_ROUNDS; ++round) {
        const EccPoint result = mult(engine_point(coordinates(random_point())), n - 1);
        EXPECT_EQ(EccPoint_isZero(&result), 1);
    }
}

TEST(ScalarMult, GivesTheZeroPointForPointsWithXOfZero)
{
    const EccPoint on_curve = decompress(Bytes{2} + bytes(0));
    for (int round = 0; round < MULT_ROUNDS; ++round) {
        const EccPoint result = mult(on_curve, random_below(n));
        EXPECT_EQ(EccPoint_isZero(&result), 1);
    }
}

TEST(ScalarMult, FollowsItsStepsForScalarsAroundTheOrder)
{
    for (int offset = -3; offset <= 3; ++offset) {
        const mpz_class scalar = n + offset;
        EXPECT_EQ(model_point(mult(curve_G, scalar)),
                  ecc_model::scalar_mult(ecc_model::base, scalar))
            << offset;
    }
    const mpz_class greatest = power_of_two(256) - 1;
    EXPECT_EQ(model_point(mult(curve_G, greatest)),
              ecc_model::scalar_mult(ecc_model::base, greatest));
}

TEST(ScalarMult, FollowsItsStepsForPointsOffTheCurve)
{
    for (int round = 0; round < MODEL_ROUNDS; ++round) {
        const ecc_model::Point point = {
            round % 2 == 0 ? random_below(p) : integer(corner_biased_digits<Digits>()),
            round % 4 < 2 ? random_below(p) : integer(corner_biased_digits<Digits>())};
        const mpz_class scalar = random_below(power_of_two(round < 10 ? 8 : 256));
        const mpz_class z = random_z();
        const Digits given_z = digits(z);
        EXPECT_EQ(model_point(mult(engine_point(point), scalar, &given_z)),
                  ecc_model::scalar_mult(point, scalar, z));
    }
}

TEST(SquareRoot, SquaredIsTheNumberOrItsNegative)
{
    for (int round = 0; round < FORMULA_ROUNDS; ++round) {
        const mpz_class value = round < 10 ? mpz_class(round) : random_below(p);
        Digits root = digits(value);
        mod_sqrt(root.data());
        const bool is_square = mpz_legendre(value.get_mpz_t(), p.get_mpz_t()) >= 0;
        ASSERT_EQ(modulo_p(integer(root) * integer(root)),
                  is_square ? value : mpz_class(p - value));
    }
}

TEST(SquareRoot, IsThePowerToAQuarterOfThePrimePlusOne)
{
    const mpz_class exponent = (p + 1) / 4;
    for (int round = 0; round < FORMULA_ROUNDS; ++round) {
        const mpz_class value = random_below(p);
        mpz_class expected;
        mpz_powm(expected.get_mpz_t(), value.get_mpz_t(), exponent.get_mpz_t(), p.get_mpz_t());
        Digits root = digits(value);
        mod_sqrt(root.data());
        ASSERT_EQ(integer(root), expected);
    }
}

TEST(SquareRoot, OfZeroIsZero)
{
    Digits root = {};
    mod_sqrt(root.data());
    EXPECT_EQ(root, Digits{});
}

TEST(Decompress, FindsTheYWithTheParityOfThePrefix)
{
    for (int round = 0; round < FORMULA_ROUNDS; ++round) {
        const Bytes form = random_point();
        const Bytes compressed = openssl_compressed(form);
        ASSERT_EQ(model_point(decompress(compressed)), coordinates(form));

        Bytes other = compressed;
        other[0] ^= 1;
        const ecc_model::Point point = coordinates(form);
        ASSERT_EQ(model_point(decompress(other)), (ecc_model::Point{point.x, p - point.y}));
    }
}

TEST(Decompress, LooksAtTheLowestBitAloneOfEveryPrefixButFour)
{
    const ecc_model::Point point = coordinates(random_point());
    const bool odd = mpz_odd_p(point.y.get_mpz_t()) != 0;
    for (unsigned prefix = 0; prefix < 256; ++prefix) {
        if (prefix != 4) {
            const bool same = (prefix % 2 == 1) == odd;
            const mpz_class y = same ? point.y : mpz_class(p - point.y);
            EXPECT_EQ(model_point(decompress(Bytes{static_cast<uint8_t>(prefix)} + bytes(point.x))),
                      (ecc_model::Point{point.x, y}))
                << prefix;
        }
    }
}

TEST(Decompress, TakesBothCoordinatesUntouchedAfterFour)
{
    for (int round = 0; round < FORMULA_ROUNDS; ++round) {
        const ecc_model::Point any = {random_below(power_of_two(256)),
                                      integer(corner_biased_digits<Digits>())};
        ASSERT_EQ(model_point(decompress(uncompressed(any.x, any.y))), any);
    }
}

TEST(Decompress, KeepsAnXThatIsNotBelowThePrime)
{
    const ecc_model::Point reduced = model_point(decompress(Bytes{2} + bytes(5)));
    const ecc_model::Point point = model_point(decompress(Bytes{2} + bytes(p + 5)));
    EXPECT_EQ(point.x, p + 5);
    EXPECT_EQ(point.y, reduced.y);
}

TEST(Decompress, GivesSomePointForAnXWithoutY)
{
    int without_y = 0;
    for (int round = 0; round < 100; ++round) {
        const mpz_class x = random_below(p);
        const mpz_class square = modulo_p(x * x * x - 3 * x + ecc_model::b);
        if (mpz_legendre(square.get_mpz_t(), p.get_mpz_t()) < 0) {
            const ecc_model::Point point = model_point(decompress(Bytes{3} + bytes(x)));
            EXPECT_EQ(point.x, x);
            EXPECT_EQ(modulo_p(point.y * point.y), p - square);
            EXPECT_NE(mpz_odd_p(point.y.get_mpz_t()), 0);
            ++without_y;
        }
    }
    EXPECT_GT(without_y, 0);
}

TEST(ChooseRoot, LeavesThePrimeItselfForARootOfZeroAndAnOddPrefix)
{
    Digits y = {};
    ecc_choose_root(y.data(), 3);
    EXPECT_EQ(integer(y), p);
    y = {};
    ecc_choose_root(y.data(), 2);
    EXPECT_EQ(y, Digits{});
}

TEST(MultTwo, IsTheSumOfTheMultiples)
{
    const auto expect_sum = [](const mpz_class& u1, const mpz_class& u2, const Bytes& point) {
        const EccPoint operand = engine_point(coordinates(point));
        EccPoint result = {};
        EccPoint_multTwo(&result, digits(u1).data(), digits(u2).data(), &operand);
        expect_multiple(u1 == 0   ? openssl_mult(u2, point)
                        : u2 == 0 ? openssl_base_mult(u1)
                                  : openssl_add(openssl_base_mult(u1), openssl_mult(u2, point)),
                        result);
    };
    for (int round = 0; round < MULT_ROUNDS; ++round) {
        expect_sum(random_below(n), random_below(n), random_point());
        expect_sum(random_below(n), random_below(power_of_two(128)), random_point());
        expect_sum(random_below(power_of_two(128)), random_below(n), random_point());
    }
    const Bytes point = random_point();
    for (unsigned u1 = 0; u1 <= 8; ++u1) {
        for (unsigned u2 = u1 == 0 ? 1 : 0; u2 <= 8; ++u2) {
            expect_sum(u1, u2, point);
        }
    }
}

TEST(MultTwo, FollowsItsStepsWhereAdditionsMeetEqualX)
{
    const ecc_model::Point twice = coordinates(openssl_base_mult(2));
    const ecc_model::Point operands[] = {
        ecc_model::base, {ecc_model::base.x, p - ecc_model::base.y}, twice, {twice.x, p - twice.y},
        {0, 0},          {random_below(p), random_below(p)},
    };
    for (const ecc_model::Point& operand : operands) {
        const EccPoint point = engine_point(operand);
        const auto expect_steps = [&](const mpz_class& u1, const mpz_class& u2) {
            EccPoint result = {};
            EccPoint_multTwo(&result, digits(u1).data(), digits(u2).data(), &point);
            EXPECT_EQ(model_point(result), ecc_model::mult_two(u1, u2, operand))
                << u1 << " G + " << u2 << " Q";
        };
        for (unsigned u1 = 0; u1 <= 8; ++u1) {
            for (unsigned u2 = u1 == 0 ? 1 : 0; u2 <= 8; ++u2) {
                expect_steps(u1, u2);
            }
        }
        expect_steps(random_below(n), random_below(n));
        expect_steps(0, random_below(n));
    }
}

TEST(MultTwo, OfTwoZerosIsTheZeroPoint)
{
    EccPoint result = curve_G;
    EccPoint_multTwo(&result, Digits{}.data(), Digits{}.data(), &curve_G);
    EXPECT_EQ(EccPoint_isZero(&result), 1);
}

TEST(AddBase, GivesTheZeroPointForAPointWithTheSameX)
{
    EccPoint sum = {};
    EccPoint_addBase(&sum, &curve_G);
    EXPECT_EQ(EccPoint_isZero(&sum), 1);

    const EccPoint negative = engine_point({ecc_model::base.x, p - ecc_model::base.y});
    EccPoint_addBase(&sum, &negative);
    EXPECT_EQ(EccPoint_isZero(&sum), 1);
}
