set(ZEL_WARNINGS -Wall -Wextra -Wconversion -Wshadow -Werror)
