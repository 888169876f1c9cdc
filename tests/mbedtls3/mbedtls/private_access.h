#ifndef STUB_MBEDTLS3_PRIVATE_ACCESS_H
#define STUB_MBEDTLS3_PRIVATE_ACCESS_H

/* As in 3.x: a member that is not for applications has another name for them. */
#define MBEDTLS_PRIVATE(member) private_##member

#endif
