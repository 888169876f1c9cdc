"""Shows what ECDH makes of peers' keys that are no points of the curve.

Usage: invalid_points.py PROGRAM...   (as for published_vectors.py)

The additions do not use the curve's coefficient b, so a point (x, y) is taken for one of the curve
with the b that fits. For b = -2 that curve has a double point at x = -1, and its other points are the
numbers 1 ... p - 1 under multiplication: u = (y + c (x + 1)) / (y - c (x + 1)) with c^2 = -3. So a point
of any order that divides p - 1 is found by a power, and the secret that the private key d leads to is
known to whoever knows d modulo that order.
"""

import random
import sys

from published_vectors import Library

P = 2**256 - 2**224 + 2**192 + 2**96 - 1
C = pow(P - 3, (P + 1) // 4, P)
AGREEMENTS = 100


def point_of(u):
    slope = C * (u + 1) * pow(u - 1, -1, P) % P
    x = (slope * slope + 2) % P
    return x, slope * (x + 1) % P


def element_of_order(order):
    u = 1
    while u == 1:
        u = pow(random.randrange(2, P), (P - 1) // order, P)
    return u


def agree(library, x, y, private_key):
    public_key = b"\x04" + x.to_bytes(32, "big") + y.to_bytes(32, "big")
    succeeded, secret = library.call("agree", public_key, private_key.to_bytes(32, "big"))
    return succeeded == 1, int.from_bytes(secret, "big")


def main(program):
    random.seed(1)
    library = Library(program)
    accepted = sum(agree(library, random.randrange(P), random.randrange(P),
                         random.getrandbits(255))[0] for _ in range(1000))
    print(f"random coordinates: {accepted} of 1000 agreements succeed")
    for order in (2, 3, 17, 257, 641, 1531, 65537):
        u = element_of_order(order)
        succeeded = told = 0
        for _ in range(AGREEMENTS):
            private_key = random.getrandbits(255)
            success, secret = agree(library, *point_of(u), private_key)
            remainder = private_key % order
            succeeded += success
            told += success and remainder != 0 and secret == point_of(pow(u, remainder, P))[0]
        print(f"order {order}: {succeeded} of {AGREEMENTS} agreements succeed, and {told} of them "
              f"have the secret of the private key modulo {order}")


if __name__ == "__main__":
    main(sys.argv[1:])
