// TavraPlatform grows one header per concern; this unit keeps the library
// non-empty until the first backend lands.
namespace tavra {}
