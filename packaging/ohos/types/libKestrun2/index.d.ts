/**
 * The sum of two numbers, in double precision. An argument that is missing or not a number counts as 0.
 *
 * A script that gets 5 from add(2, 3) knows that the library is loaded. The stores themselves are reached by Store
 * of the package and from C++, through the headers in include/kestrun.
 */
export const add: (a: number, b: number) => number;
