package com.kelvane.media.test;

import java.lang.reflect.InvocationTargetException;
import java.lang.reflect.Method;
import java.lang.reflect.Modifier;

/** Calls every native method of the classes named on the command line with zeros and nulls. */
public final class NativeMethods {
    public static void main(String[] classNames) throws ReflectiveOperationException {
        int bound = 0;
        for (String className : classNames) {
            for (Method method : Class.forName("com.kelvane.media." + className).getMethods()) {
                if (!Modifier.isNative(method.getModifiers()) || !Modifier.isStatic(method.getModifiers())) {
                    continue;
                }
                Class<?>[] types = method.getParameterTypes();
                Object[] arguments = new Object[types.length];
                for (int i = 0; i < types.length; i++) {
                    arguments[i] = types[i] == int.class ? (Object) 0
                            : types[i] == long.class ? (Object) 0L
                            : types[i] == boolean.class ? (Object) false : null;
                }
                try {
                    Object result = method.invoke(null, arguments);
                    if (method.getName().equals("open") && (Long) result > 0) {
                        method.getDeclaringClass().getMethod("close", long.class)
                                .invoke(null, result);
                    }
                    bound++;
                } catch (InvocationTargetException e) {
                    System.out.println(method + ": " + e.getCause());
                }
            }
        }
        System.out.println(bound + " native methods bound");
    }
}
