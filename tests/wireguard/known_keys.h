// The two key pairs of RFC 7748, section 6.1, as Base64. Both private keys are unclamped.
#pragma once

inline constexpr char kAlicePrivate[] = "dwdtCnMYpX08FsFyUbJmRd9ML4frwJkqsXf7pR25LCo=";
inline constexpr char kAlicePublic[] = "hSDwCYkwp1R0i33ctD73Wg2/Og0mOBr066SpjqqbTmo=";
inline constexpr char kBobPrivate[] = "XasIfmJKikt54X+Lg4AO5m87sSkmGLb9HC+LJ/+I4Os=";
inline constexpr char kBobPublic[] = "3p7bfXt9wbTTW2HC7OQ1Nz+DQ8hbeGdNrfx+FG+IK08=";
